// Values that nobody should send: whatever they hold, every answer is a value or a failure.
#include <sys/mman.h>

#include <cstring>
#include <random>

#include "der/names.h"
#include "tests/der/recipes.h"

namespace qixx::testing {
namespace {

/// Puts the bytes where memory ends: reading one more is a crash in every build.
Bytes AtTheEdge(std::string_view text) {
  constexpr std::size_t kSize = 1 << 16;
  static char* const area = [] {
    void* const all = ::mmap(nullptr, 2 * kSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_EQ(::mprotect(all, kSize, PROT_READ | PROT_WRITE), 0);
    return static_cast<char*>(all);
  }();
  char* const start = area + kSize - text.size();
  std::memcpy(start, text.data(), text.size());
  return BytesOf({start, text.size()});
}

void AskEverything(Bytes value) {
  char text[kOidTextSize];
  std::size_t header = 0;
  const std::int32_t length = DecodeLength(value, header);
  ASSERT_LE(length, static_cast<std::int64_t>(value.size()));
  for (std::size_t at = 0; at < value.size(); at += 7) {
    static_cast<void>(OidToText(value.subspan(at), text));
    ASSERT_LT(std::strlen(text), sizeof text);
  }
  char name[80];
  ASSERT_LT(FormatName(value, name), sizeof name);

  const CertificatePtr holder = LoadCertificate(value);
  char upn[33], subject[32], serial[32];
  const bool found = GetLogonValues(value, false, true, upn, 32, subject, 32, serial, 32);
  ASSERT_TRUE(holder != nullptr || !found);
  if (holder == nullptr) return;
  ASSERT_EQ(found, !LogonName(holder, false, true).empty());
  ASSERT_LE(GetSubjectText(*holder).size() + 1, value.size());
  ASSERT_EQ(GetSubjectText(*holder).data()[GetSubjectText(*holder).size()], '\0');
  static_cast<void>(HasExtendedKeyUsage(*holder, kSmartCardLogon));
  static_cast<void>(MatchCertificate(value, {}, "issuer|cn=x", "cn=Ann Lee", {}));
  ASSERT_FALSE(RanksHigher(*holder, *holder));
}

Recipe Indefinite() {
  Recipe recipe;
  recipe.sequence = Open;
  recipe.alternativeNames = Open(0xA0, Oid(kUserPrincipalName) + Open(0xA0, Der(0x0C, "ann")));
  recipe.subject = Open(0x31, Open(0x30, Oid("cn") + Der(0x1E, FromHex("00410042D83D"))));
  return recipe;
}

TEST(Hostile, EveryTruncation) {
  for (const std::string& value : {Recipe().Build(), Indefinite().Build()}) {
    for (std::size_t size = 0; size < value.size(); ++size) {
      AskEverything(AtTheEdge(value.substr(0, size)));
    }
  }
}

TEST(Hostile, Mutations) {
  constexpr int kMutations = 100'000;
  const std::string seeds[] = {Recipe().Build(), Indefinite().Build()};
  const std::string tags("\x00\x02\x03\x04\x06\x30\x31\x7F\x80\x81\x82\x84\xA0\xA3\xFF\x01", 16);
  std::mt19937 random(20240229);
  for (int i = 0; i < kMutations && !::testing::Test::HasFatalFailure(); ++i) {
    SCOPED_TRACE(i);
    std::string value = seeds[i % 2];
    for (auto changes = 1 + random() % 4; changes > 0; --changes) {
      const std::size_t at = random() % value.size();
      const auto kind = random() % 4;
      if (kind == 0) value[at] = static_cast<char>(random());
      if (kind == 1) value[at] = tags[random() % tags.size()];
      if (kind == 2) value.erase(at, 1 + random() % 8);
      if (kind == 3) value.insert(at, value.substr(random() % (at + 1), random() % 16));
      if (value.empty()) value = seeds[0];
    }
    AskEverything(AtTheEdge(value));
  }
}

TEST(Hostile, DeepNestingIsRefusedAndLongWalksEnd) {
  const auto nested = [](int depth, std::string value) {
    while (depth-- > 0) value = Open(0x30, value);
    return value;
  };
  std::size_t header = 0;
  EXPECT_GT(DecodeLength(BytesOf(nested(kDerMaxNesting, "")), header), 0);
  EXPECT_EQ(DecodeLength(BytesOf(nested(kDerMaxNesting + 1, "")), header), kDerBadLength);
  for (const char* unit : {"3080", "30800401410000", "30", "06018830020101"}) {
    std::string value = "\x30\x80";
    while (value.size() < 4'000'000) value += FromHex(unit);
    AskEverything(BytesOf(value).first(value.size() % 4096 + 16));
    EXPECT_EQ(LoadCertificate(BytesOf(value)), nullptr);
  }
}

}  // namespace
}  // namespace qixx::testing
