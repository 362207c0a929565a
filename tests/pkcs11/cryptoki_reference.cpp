// The interface as the distribution's header has it. A unit of its own, since names clash.
#include <p11-kit/pkcs11.h>

#include <cstddef>
#include <map>
#include <string>

namespace qixx::testing {

std::map<std::string, unsigned long> ReferenceTable() {
  std::map<std::string, unsigned long> table;
#define CONSTANT(name) table[#name] = static_cast<unsigned long>(name);
#define FIELD(structure, field)          \
  table[#structure] = sizeof(structure); \
  table[#structure "." #field] = offsetof(structure, field);
#include "cryptoki_names.inc"
#include "tests/pkcs11/cryptoki_fields.inc"
  return table;
}

}  // namespace qixx::testing
