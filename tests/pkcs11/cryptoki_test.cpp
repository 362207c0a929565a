#include "pkcs11/cryptoki.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <map>
#include <string>
#include <string_view>

namespace qixx::testing {

/// Values of constants, sizes of structures, offsets of fields.
std::map<std::string, unsigned long> ReferenceTable();

TEST(Cryptoki, AgreesWithDistribution) {
  std::map<std::string, unsigned long> table;
#include "cryptoki_table.inc"
  // The distribution's header has these five at 0x1C0 and up, the standard from 0x1B5.
  constexpr std::string_view kApart =
      "CKR_EXCEEDED_MAX_ITERATIONS CKR_FIPS_SELF_TEST_FAILED CKR_LIBRARY_LOAD_FAILED "
      "CKR_PIN_TOO_WEAK CKR_PUBLIC_KEY_INVALID";
  for (const auto& [name, value] : ReferenceTable()) {
    EXPECT_TRUE(table.at(name) == value || kApart.find(name) != kApart.npos) << name;
  }
  EXPECT_GT(table.size(), 450U);
}

}  // namespace qixx::testing
