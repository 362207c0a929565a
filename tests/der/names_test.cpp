#include "der/names.h"

#include "tests/der/recipes.h"

namespace qixx::testing {
namespace {

std::string Format(const std::string& parts, std::size_t size = 4096) {
  std::string text(size, 'x');
  const std::size_t length = FormatName(BytesOf(Der(0x30, parts)), text);
  EXPECT_TRUE(size == 0 || text[length] == '\0');
  return text.substr(0, length);
}

TEST(FormatName, WritesEveryKindOfValue) {
  const std::string both = Der(0x31, Part("ou", "A").substr(2) + Part("cn", "B").substr(2));
  const std::string broken = Der(0x31, Der(0x30, FromHex("0601FF0C0141")));
  const std::string open = Open(0x31, Open(0x30, Oid("cn") + Der(0x0C, "B")));
  struct {
    const char* name;
    std::string parts, text;
  } const rows[] = {
      {"short names", Part("S", "Lee") + Part("t", "Dr") + Part("g", "Ann"), "s=Lee,t=Dr,g=Ann"},
      {"dotted", Part(kEmailAttribute, "a@b", 0x16), "1.2.840.113549.1.9.1=a@b"},
      {"separators", Part("o", "A, B+C\\,cn=root\\"), "o=A\\, B\\+C\\\\\\,cn=root\\\\"},
      {"multi-valued", both + Part("o", "C"), "ou=A,cn=B,o=C"},
      {"empty value", Part("o", "") + Part("cn", "Ann"), "o=,cn=Ann"},
      {"UTF-8", Part("o", "\u00fc\u20ac\U0001F600"), "o=\u00fc\u20ac\U0001F600"},
      {"broken UTF-8", Part("o", "a\xFF\xC0\xAFz\xE2\x82"), "o=a\uFFFD\uFFFD\uFFFDz\uFFFD\uFFFD"},
      {"surrogate in UTF-8", Part("o", "\xED\xA0\x80"), "o=\uFFFD\uFFFD\uFFFD"},
      {"overlong", Part("o", "\xE0\x9F\xBF\xF0\x8F\xBF\xBF"),
       "o=\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD"},
      {"T61String", Part("o", "\xFC,", 0x14), "o=\u00fc\\,"},
      {"BMPString", Part("o", FromHex("002C D83DDE00 D83D 0041 00"), 0x1E),
       "o=\\,\U0001F600\uFFFDA"},
      {"UniversalString", Part("o", FromHex("0001F600 00110000"), 0x1C), "o=\U0001F600\uFFFD"},
      {"no text", Part("o", FromHex("00FF2C"), 0x03), "o=#030300FF2C"},
      {"zero byte", Part("o", std::string("a\0b", 3)), std::string("o=a\0b", 5)},
      {"unreadable type", broken + Part("cn", "B"), "cn=B"},
      {"closing pairs", open + Part("o", "C"), "cn=B,o=C"},
  };
  for (const auto& row : rows) EXPECT_EQ(Format(row.parts), row.text) << row.name;
}

TEST(FormatName, LeavesOutWhatDoesNotFitWhole) {
  const std::string parts = Part("o", "Org") + Part("cn", "a,b");
  EXPECT_EQ(Format(parts, 14), "o=Org,cn=a\\,b");
  EXPECT_EQ(Format(parts, 13), "o=Org");
  EXPECT_EQ(Format(parts, 1), "");
  EXPECT_EQ(Format(parts, 0), "");
}

TEST(NextNameComponent, WalksFormattedNames) {
  struct {
    const char *name, *text, *components;  // key:value; each
  } const rows[] = {
      {"blanks and separators are skipped", "CN=Ann Lee, O=Org", "CN:Ann Lee;O:Org;"},
      {"one blank before a separator is dropped", "a=x  + b=y ,c=z ", "a:x ;b:y;c:z ;"},
      {"escapes", "o=A\\, B\\+C\\\\\\,cn=root\\\\,c=D\\=E\\", "o:A, B+C\\,cn=root\\;c:D\\=E\\;"},
      {"value with equals sign", "o=a=b,cn=c", "o:a=b;cn:c;"},
      {"empty value", "o=,cn=c", "o:;cn:c;"},
      {"component without equals sign ends it", "o=a,junk,cn=b", "o:a;"},
      {"nothing but separators", " ,+ ", ""},
  };
  for (const auto& row : rows) {
    std::string_view rest = row.text;
    std::string key, value, components;
    while (NextNameComponent(rest, key, value)) {
      components.append(key).append(":").append(value).append(";");
    }
    EXPECT_EQ(components, row.components) << row.name;
  }
}

TEST(MatchNames, AsksSubjectOrIssuer) {
  Recipe recipe;
  recipe.subject += Part("2.5.4.7", "BONN") + Part("ou", FromHex("00E4 0041"), 0x1E);
  CDerCert certificate;
  ASSERT_EQ(certificate.SetData(BytesOf(recipe.Build())), kDerOk);
  for (const char* filter : {"", "subject|", " ; ", "cn=ann LEE", "2.5.4.3=Ann Lee", "2.5.4.7=Bonn",
                             "o=Example, Inc.", "ou=\u00e4a", "ann lee", "SUBJECT|  ann",
                             "Issuer| cn=Card CA", "nobody; ;cn=x; example "}) {
    EXPECT_TRUE(MatchNames(certificate, true, filter)) << filter;
  }
  for (const char* filter :
       {"cn=Ann", "cn=Ann Lee Jr", "=Ann Lee", "issuer|ann", "nobody; ;cn=x"}) {
    EXPECT_FALSE(MatchNames(certificate, true, filter)) << filter;
  }
  EXPECT_TRUE(MatchNames(certificate, false, "card ca"));
  EXPECT_FALSE(MatchNames(certificate, false, "cn=Ann Lee"));
  EXPECT_TRUE(MatchNames(certificate, true, ViewOf(nullptr)));
}

}  // namespace
}  // namespace qixx::testing
