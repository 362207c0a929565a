#include "pkcs11/cryptoki.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <map>
#include <set>
#include <string>

namespace qixx::testing {

/// Values of constants, sizes of structures, offsets of fields.
std::map<std::string, unsigned long> ReferenceTable();

TEST(Cryptoki, AgreesWithDistribution) {
  std::map<std::string, unsigned long> ours;
#define CONSTANT(name) ours[#name] = name;
#define FIELD(structure, field)         \
  ours[#structure] = sizeof(structure); \
  ours[#structure "." #field] = offsetof(structure, field);
#include "cryptoki_names.inc"
#include "tests/pkcs11/cryptoki_fields.inc"

  // The distribution's header has these five at 0x1C0 and up, the standard from 0x1B5.
  const std::set<std::string> apart = {"CKR_EXCEEDED_MAX_ITERATIONS", "CKR_FIPS_SELF_TEST_FAILED",
                                       "CKR_LIBRARY_LOAD_FAILED", "CKR_PIN_TOO_WEAK",
                                       "CKR_PUBLIC_KEY_INVALID"};
  int compared = 0;
  for (const auto& [name, value] : ReferenceTable()) {
    if (apart.count(name) != 0) continue;
    EXPECT_EQ(ours.at(name), value) << name;
    ++compared;
  }
  EXPECT_GT(compared, 450);
}

}  // namespace qixx::testing
