#include "der/names.h"

#include <gtest/gtest.h>

#include "tests/support/recipes.h"

namespace qixx::testing {
namespace {

std::string Format(const std::string& parts, std::size_t maxLength = 4096) {
  return der::FormatName(BytesOf(Der(0x30, parts)), maxLength);
}

TEST(FormatName, WritesEveryKindOfValue) {
  const std::string badType = Der(0x31, Der(0x30, FromHex("0601FF0C0141")));
  const std::string bmp = FromHex("002C D83DDE00 D83D 0041DE00 00"), bad3 = "\uFFFD\uFFFD\uFFFD";
  const std::tuple<const char*, std::string, std::string> rows[] = {
      {"short names", Part("S", "Lee") + Part("t", "Dr") + Part("g", "Ann"), "s=Lee,t=Dr,g=Ann"},
      {"broken UTF-8", Part("o", "a\xFF\xC0\xAFz\xE2\x82"), "o=a\uFFFD\uFFFD\uFFFDz\uFFFD\uFFFD"},
      {"surrogate, overlong", Part("o", "\xED\xA0\x80 \xE0\x9F\xBF"), "o=" + bad3 + " " + bad3},
      {"overlong by one", Part("o", "\xF0\x8F\xBF\xBF,"), "o=" + bad3 + "\uFFFD\\,"},
      {"surrogates in BMPString", Part("o", bmp, 0x1E), "o=\\,\U0001F600\uFFFDA\uFFFD"},
      {"past Unicode", Part("o", FromHex("0001F600 00110000"), 0x1C), "o=\U0001F600\uFFFD"},
      {"no text", Part("o", FromHex("00FF2C"), 0x03), "o=#030300FF2C"},
      {"zero byte", Part("o", std::string("a\0b", 3)), std::string("o=a\0b", 5)},
      {"unreadable type", badType + Part("o", "") + Part("cn", "B"), "o=,cn=B"},
  };
  for (const auto& [name, parts, text] : rows) EXPECT_EQ(Format(parts), text) << name;

  const std::string parts = Part("o", "Org") + Part("cn", "a,b");
  EXPECT_EQ(Format(parts, 13), "o=Org,cn=a\\,b");
  EXPECT_EQ(Format(parts, 12), "o=Org") << "a component is left out whole";
}

TEST(NextNameComponent, WalksFormattedNames) {
  std::string_view rest = " ,+CN=Ann  , o=A\\, B\\+C\\\\\\,cn=root\\\\ + c=D\\=E\\,e= ,junk,cn=c";
  std::string components;
  while (const std::optional<der::NameComponent> next = der::NextNameComponent(rest)) {
    components.append(next->key + ":").append(next->value + ";");
  }
  EXPECT_EQ(components, "CN:Ann ;o:A, B+C\\,cn=root\\;c:D\\=E,e=;");
}

TEST(MatchNames, AsksSubjectOrIssuer) {
  Recipe recipe;
  recipe.subject += Part("ou", FromHex("00E4 0041"), 0x1E);
  der::CDerCert certificate;
  ASSERT_EQ(certificate.SetData(BytesOf(recipe.Build())), der::DerResult::kOk);
  for (const char* filter : {"", "subject|", " ; ", "2.5.4.3=ann LEE", "ou=\u00e4a", "ann lee",
                             "SUBJECT|  ann", "Issuer| cn=Card CA", "nobody; ;cn=x; example "}) {
    EXPECT_TRUE(certificate.MatchNames(true, filter)) << filter;
  }
  for (const char* filter :
       {"cn=Ann", "cn=Ann Lee Jr", "=Ann Lee", "issuer|ann", "nobody; ;cn=x"}) {
    EXPECT_FALSE(certificate.MatchNames(true, filter)) << filter;
  }
  EXPECT_TRUE(certificate.MatchNames(false, "card ca"));
}

}  // namespace
}  // namespace qixx::testing
