// Certificates by recipe: what they say, and what nobody should send.
#include "der/certificate.h"

#include <gmock/gmock.h>

#include <ctime>
#include <random>

#include "der/names.h"
#include "der/spare_certificate.h"
#include "fuzz/fuzz.h"
#include "runtime/spare_text.h"
#include "tests/support/recipes.h"

namespace qixx::testing {
namespace {

using namespace ::testing;

der::CertificatePtr Load(const Recipe& recipe) {
  return der::LoadCertificate(BytesOf(recipe.Build()));
}

// --- names --------------------------------------------------------------------------------------

TEST(FormatName, WritesEveryKindOfValue) {
  const std::string bmp = FromHex("002C D83DDE00 D83D 0041DE00 00");
  const std::string two =
      Part("2.5.4.11", "a+b").substr(2) + Part("2.5.4.7", "K\u00f6ln").substr(2);
  const std::tuple<const char*, std::string, std::string> rows[] = {
      {"two attributes in one part", Part("2.5.4.6", "DE", 0x13) + Der(0x31, two),
       "c=DE,ou=a\\+b,2.5.4.7=K\u00f6ln"},
      {"Latin-1", Part("2.5.4.10", "\xC4", 0x14), "o=\u00c4"},
      {"broken UTF-8", Part("o", "a\xFF\xC0\xAFz\xE2\x82"), "o=a\uFFFD\uFFFD\uFFFDz\uFFFD\uFFFD"},
      {"surrogates in BMPString", Part("o", bmp, 0x1E), "o=\\,\U0001F600\uFFFDA\uFFFD"},
      {"no text", Part("o", FromHex("00FF2C"), 0x03), "o=#030300FF2C"},
      {"zero byte", Part("o", std::string("a\0b", 3)), std::string("o=a\0b", 5)},
  };
  const auto format = [](const std::string& parts, std::size_t maxLength) {
    return der::FormatName(BytesOf(Der(0x30, parts)), maxLength);
  };
  for (const auto& [name, parts, text] : rows) EXPECT_EQ(format(parts, 4096), text) << name;
  const std::string parts = Part("o", "Org") + Part("cn", "a,b");
  EXPECT_EQ(format(parts, 13), "o=Org,cn=a\\,b");
  EXPECT_EQ(format(parts, 12), "o=Org") << "a component is left out whole";
}

TEST(MatchNames, AsksSubjectOrIssuer) {
  Recipe recipe;
  recipe.subject += Part("ou", FromHex("00E4 0041"), 0x1E);
  const der::CertificatePtr holder = Load(recipe);
  const auto matches = [&](const char* filter) {
    return holder->certificate.MatchNames(true, filter);
  };
  EXPECT_THAT((std::vector{"", "subject|", " ; ", "2.5.4.3=ann LEE", "ou=\u00e4a", "ann lee",
                           "SUBJECT|  ann", "Issuer| cn=Card CA", "nobody; ;cn=x; example "}),
              Each(Truly(matches)));
  EXPECT_THAT((std::vector{"cn=Ann", "cn=Ann Lee Jr", "=Ann Lee", "issuer|ann", "nobody; ;cn=x"}),
              Each(Not(Truly(matches))));
  EXPECT_TRUE(holder->certificate.MatchNames(false, "card ca"));
}

// --- logon values and usages --------------------------------------------------------------------

TEST(GetLogonValues, FollowsTheNames) {
  const std::string upn = OtherName(der::kUserPrincipalName, "u");
  const std::string mail = Der(0x81, "m@x"), zero("a\0b", 3);
  const std::tuple<const char*, std::string, std::string, std::string> rows[] = {
      {"zero byte", "", OtherName(der::kUserPrincipalName, zero), zero},
      {"behind other kinds", "", Der(0x82, "x") + mail + upn, "u"},
      {"empty", "", OtherName(der::kUserPrincipalName, "") + mail + Der(0x81, "n@x"), "m@x"},
      {"e-mail to its first comma", Part(der::kEmailAttribute, "a+b ,c@x", 0x16), mail, "a+b "},
      {"e-mail posing in a value", Part("cn", "x,1.2.840.113549.1.9.1=x@y"), "", ""},
  };
  for (const auto& [name, subject, names, logonName] : rows) {
    const der::CertificatePtr holder = Load({.subject = subject, .alternativeNames = names});
    EXPECT_EQ(LogonName(holder, false, true), logonName) << name;
  }
}

TEST(GetLogonValues, GivesAllOfThemUncut) {
  const auto ask = [](const std::string& certificate, bool required) {
    const auto values = der::GetLogonValues(BytesOf(certificate), required, true);
    return values ? values->upn + "|" + values->subject + "|" + values->serial : "none";
  };
  const std::string number(200, '\x7F');
  EXPECT_EQ(ask(Recipe{.serial = number}.Build(), true),
            "ann@example.org|o=Example\\, Inc.,cn=Ann Lee|" + runtime::HexEncode(BytesOf(number)));
  EXPECT_EQ(ask(Recipe{.subject = Part("c", "DE"), .alternativeNames = ""}.Build(), true),
            "|c=DE|2A");
  EXPECT_EQ(ask(Recipe{.extensions = ""}.Build(), true), "||") << "for another purpose";
  EXPECT_EQ(ask(Recipe{.extensions = ""}.Build(), false).substr(0, 4), "ann@");
}

// --- loading ------------------------------------------------------------------------------------

TEST(LoadCertificate, RefusesWhatIsNone) {
  const std::string good = Recipe().Build(), info = Recipe().Info();
  const std::tuple<const char*, std::string, bool> rows[] = {
      {"0x30 alone", "\x30", true},
      {"half a validity", Recipe{.notAfter = ""}.Build(), false},
      {"signature of another tag", Der(0x30, info + FromHex("3000 0400")), false},
      {"last bytes missing", good.substr(0, good.size() - 2), true},
  };
  for (const auto& [name, value, loads] : rows) {
    EXPECT_EQ(der::LoadCertificate(BytesOf(value)) != nullptr, loads) << name;
  }
}

// --- what nobody should send --------------------------------------------------------------------

TEST(Hostile, TruncationsAndMutationsAreReadToTheirEndOnly) {
  // What the fuzz target asks, of an array of that very size: sanitizers and valgrind see a byte
  // read behind it.
  const auto askEverything = [](const std::string& text) {
    const std::vector<std::uint8_t> value(text.begin(), text.end());
    LLVMFuzzerTestOneInput(value.data(), value.size());
  };
  const std::string cn = Open(0x31, Open(0x30, Oid("cn") + Der(0x1E, FromHex("00410042D83D"))));
  const std::string upn = Open(0xA0, Oid(der::kUserPrincipalName) + Open(0xA0, Der(0x0C, "ann")));
  const Recipe open{.subject = cn, .alternativeNames = upn, .sequence = Open};
  EXPECT_EQ(LogonName(Load(open), true, false), "ann") << "by indefinite lengths";
  std::mt19937 random(20240229);
  for (const std::string& seed : {Recipe().Build(), open.Build()}) {
    for (std::size_t size = 0; size <= seed.size(); ++size) askEverything(seed.substr(0, size));
    for (int i = 0; i < 50'000; ++i) {
      std::string value = seed;
      for (auto changes = 1 + random() % 4; changes > 0 && !value.empty(); --changes) {
        const std::size_t at = random() % value.size();
        value[at] = random() % 2 == 0 ? static_cast<char>(random()) : seed[random() % seed.size()];
        if (random() % 2 == 0) value.replace(at, random() % 8, value.substr(at / 2, random() % 8));
      }
      askEverything(value);
    }
  }
}

TEST(Hostile, DeepNestingIsRefusedAndLongWalksEnd) {
  std::string nested;
  for (int depth = 0; depth < der::kMaxNesting; ++depth) nested = Open(0x30, nested);
  EXPECT_EQ(der::DecodeLength(BytesOf(nested))->content, 4U * der::kMaxNesting - 2);
  EXPECT_FALSE(der::DecodeLength(BytesOf(Open(0x30, nested))));
  for (const char* unit : {"3080", "30800401410000", "30", "06018830020101"}) {
    std::string value = "\x30\x80";
    while (value.size() < 4'000'000) value += FromHex(unit);
    EXPECT_EQ(der::LoadCertificate(BytesOf(value)), nullptr) << unit;
  }
}

TEST(Certificate, HasExpiredAnHourAgoAndNotAnHourAhead) {
  for (const int away : {-3600, 3600}) {
    const std::time_t end = std::time(nullptr) + away;
    std::tm date = {};
    ::gmtime_r(&end, &date);
    char text[16];
    const std::string time(text, std::strftime(text, sizeof text, "%y%m%d%H%M%SZ", &date));
    const auto holder = Load({.notAfter = Der(0x17, time)});
    ASSERT_NE(holder, nullptr);
    EXPECT_EQ(holder->certificate.IsExpired(), away < 0);
  }
}

}  // namespace
}  // namespace qixx::testing
