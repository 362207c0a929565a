// Values that nobody should send: whatever they hold, every answer is a value or a failure.
#include <gtest/gtest.h>
#include <random>
#include <vector>

#include "fuzz/fuzz.h"
#include "tests/support/recipes.h"

namespace qixx::testing {
namespace {

/// What the fuzz target asks, of an array of that very size: sanitizers and valgrind see a byte
/// read behind it.
void AskEverything(const std::string& text) {
  const std::vector<std::uint8_t> value(text.begin(), text.end());
  LLVMFuzzerTestOneInput(value.data(), value.size());
}

/// With definite and with indefinite lengths.
std::vector<std::string> Seeds() {
  const std::string cn = Open(0x31, Open(0x30, Oid("cn") + Der(0x1E, FromHex("00410042D83D"))));
  const std::string upn = Open(0xA0, Oid(der::kUserPrincipalName) + Open(0xA0, Der(0x0C, "ann")));
  const Recipe open{.subject = cn, .alternativeNames = upn, .sequence = Open};
  return {Recipe().Build(), open.Build()};
}

TEST(Hostile, TruncationsAndMutations) {
  EXPECT_EQ(LogonName(der::LoadCertificate(BytesOf(Seeds()[1])), true, false), "ann");
  std::mt19937 random(20240229);
  for (const std::string& seed : Seeds()) {
    for (std::size_t size = 0; size <= seed.size(); ++size) AskEverything(seed.substr(0, size));
    for (int i = 0; i < 50'000; ++i) {
      std::string value = seed;
      for (auto changes = 1 + random() % 4; changes > 0 && !value.empty(); --changes) {
        const std::size_t at = random() % value.size();
        value[at] = random() % 2 == 0 ? static_cast<char>(random()) : seed[random() % seed.size()];
        if (random() % 2 == 0) value.replace(at, random() % 8, value.substr(at / 2, random() % 8));
      }
      AskEverything(value);
    }
  }
}

TEST(Hostile, DeepNestingIsRefusedAndLongWalksEnd) {
  std::string nested;
  for (int depth = 0; depth < der::kMaxNesting; ++depth) nested = Open(0x30, nested);
  const std::optional<der::DerLength> deepest = der::DecodeLength(BytesOf(nested));
  ASSERT_TRUE(deepest);
  EXPECT_EQ(deepest->content, 4U * der::kMaxNesting - 2);
  EXPECT_FALSE(der::DecodeLength(BytesOf(Open(0x30, nested))));
  for (const char* unit : {"3080", "30800401410000", "30", "06018830020101"}) {
    std::string value = "\x30\x80";
    while (value.size() < 4'000'000) value += FromHex(unit);
    EXPECT_EQ(der::LoadCertificate(BytesOf(value)), nullptr) << unit;
  }
}

}  // namespace
}  // namespace qixx::testing
