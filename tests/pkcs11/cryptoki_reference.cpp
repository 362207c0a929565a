// The interface as the distribution's header has it. A unit of its own, since names clash.
#include <p11-kit/pkcs11.h>

#include <cstddef>
#include <map>
#include <string>

namespace qixx::testing {

std::map<std::string, unsigned long> ReferenceTable() {
  std::map<std::string, unsigned long> table;
#include "cryptoki_table.inc"
  return table;
}

}  // namespace qixx::testing
