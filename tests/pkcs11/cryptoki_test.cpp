#include "pkcs11/cryptoki.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <map>
#include <string>

namespace qixx::testing {

/// Values of constants, sizes of structures, offsets of fields.
std::map<std::string, unsigned long> ReferenceTable();

TEST(Cryptoki, AgreesWithDistribution) {
  std::map<std::string, unsigned long> table;
#include "cryptoki_table.inc"
  for (const auto& [name, value] : ReferenceTable()) EXPECT_EQ(table.at(name), value) << name;
  EXPECT_GT(table.size(), 180U);
}

}  // namespace qixx::testing
