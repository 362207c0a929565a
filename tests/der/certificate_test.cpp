#include "der/certificate.h"

#include <utility>

#include "der/names.h"
#include "tests/der/recipes.h"
#include "tests/support/trace_capture.h"

namespace qixx::testing {
namespace {

std::string Base64Of(const std::string& bytes) {
  char* text = nullptr;
  Base64EncodeLines(BytesOf(bytes), text);
  const std::unique_ptr<char[]> owner(text);
  return text;
}

TEST(LogonName, FollowsTheAlternativeNames) {
  const auto upn = [](const std::string& name) { return OtherName(kUserPrincipalName, name); };
  const std::string mail = Der(0x81, "m@x"), zero("a\0b", 3);
  const std::string overrun = Der(0xA0, Oid(kUserPrincipalName) + Der(0xA0, FromHex("0C056162")));
  const std::string open = Open(0xA0, Oid(kUserPrincipalName) + Open(0xA0, Der(0x0C, "ann")));
  struct {
    const char* name;
    std::string names, inSubject, upn, email;
  } const rows[] = {
      {"another other-name behind", upn("ann") + OtherName("1.2.3", "x"), "", "ann", ""},
      {"zero byte", upn(zero), "", zero, ""},
      {"empty", upn("") + mail, "", "", "m@x"},
      {"string past its wrapper", overrun + upn("ann"), "", "", ""},
      {"indefinite", open, "", "ann", ""},
      {"e-mail to its first comma", mail,
       Part("1.2.840.113549.1.9.2", "n") + Part(kEmailAttribute, "a+b,c@x", 0x16), "", "a+b"},
      {"empty e-mail in the subject", mail, Part(kEmailAttribute, "", 0x16), "", ""},
      {"e-mail posing in a value", "", Part("cn", "x,1.2.840.113549.1.9.1=x@y"), "", ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Recipe recipe;
    recipe.alternativeNames = row.names;
    recipe.subject += row.inSubject;
    const CertificatePtr holder = LoadCertificate(BytesOf(recipe.Build()));
    ASSERT_NE(holder, nullptr);
    EXPECT_EQ(LogonName(holder, true, false), row.upn);
    EXPECT_EQ(LogonName(holder, false, true), row.upn.empty() ? row.email : row.upn);
    std::string email;
    EXPECT_EQ(GetPrincipalName(*holder, true, email), !row.email.empty());
    EXPECT_EQ(email, row.email);
  }
}

TEST(GetLogonValues, FillsAreasOfEverySize) {
  const std::string value = Recipe().Build();
  char upn[16] = "x", subject[16] = "x", serial[4] = "x";
  EXPECT_TRUE(GetLogonValues(BytesOf(value), true, false, upn, 15, subject, 16, serial, 4));
  EXPECT_STREQ(upn, "ann@example.org");
  EXPECT_STREQ(subject, "o=Example\\, Inc");
  EXPECT_STREQ(serial, "2A");
  EXPECT_TRUE(GetLogonValues(BytesOf(value), true, false, upn, 3, subject, 1, serial, 2));
  EXPECT_STREQ(upn, "ann");
  EXPECT_STREQ(subject, "");
  EXPECT_STREQ(serial, "");
  EXPECT_TRUE(GetLogonValues(BytesOf(value), false, false, nullptr, 0, nullptr, 0, nullptr, 0));

  Recipe recipe;
  recipe.extensions.clear();
  EXPECT_FALSE(
      GetLogonValues(BytesOf(recipe.Build()), true, true, upn, 15, subject, 16, serial, 4));
  EXPECT_STREQ(subject, "");
  recipe.alternativeNames.clear();
  EXPECT_FALSE(
      GetLogonValues(BytesOf(recipe.Build()), false, true, upn, 15, subject, 16, serial, 4));
  EXPECT_STREQ(upn, "");
  EXPECT_STREQ(subject, "o=Example\\, Inc");
  EXPECT_STREQ(serial, "2A");
}

TEST(LoadCertificate, TakesDerAndBase64) {
  const std::string der = Recipe().Build();
  const std::string base64 = Base64Of(der);
  const std::string armoured =
      "-----BEGIN CERTIFICATE-----\r\n" + base64 + "-----END CERTIFICATE-----\n" + base64;
  ASSERT_EQ(base64.substr(0, 3), "MII");
  for (const std::string& form : {der, base64, armoured, der + "behind"}) {
    const CertificatePtr holder = LoadCertificate(BytesOf(form));
    ASSERT_NE(holder, nullptr) << form;
    const std::uint8_t* bytes = nullptr;
    std::uint64_t length = 0;
    holder->certificate.GetData(bytes, length);
    EXPECT_EQ(AsText({bytes, length}), der);
    EXPECT_EQ(LogonName(holder, true, false), "ann@example.org");
  }
}

TEST(LoadCertificate, TellsWhatIsWrong) {
  const std::string good = Recipe().Build(), info = Recipe().Info();
  const std::string length = "Der - Invalid length encoding|";
  const std::string get = "DerCertificate - Failed to get ";
  const std::string last = length + get + "signature|";
  const std::string lastTwo = length + get + "signature algorithm|" + last;
  struct {
    const char* name;
    std::string value;
    bool loads;
    std::string lines;
  } const rows[] = {
      {"nothing", "", false, ""},
      {"other first byte", "\x31\x03\x02\x01\x01", false, ""},
      {"base64 of something else", "MQMCAQE=", false, ""},
      {"base64 of nothing", "-----\n", false, ""},
      {"0x30 alone", "\x30", true, "DerCertificate - Bad certificate value|"},
      {"shorter than its length", FromHex("30050000"), false,
       length + length + "DerCertificate - Failed to decode top sequence (4 bytes)|"},
      {"a fourth part", Recipe().Build("\x05\x01z"), false,
       "DerCertificate - 3 bytes ignored at end|"},
      {"indefinite as a whole", Open(0x30, good.substr(4)), false,
       "DerCertificate - 2 bytes ignored at end|"},
      {"no parts", FromHex("3003020541"), false, length + get + "info|" + lastTwo},
      {"info alone", Der(0x30, info), false, lastTwo},
      {"signature of another tag", Der(0x30, info + Der(0x30, "") + Der(0x04, "")), false,
       get + "signature|"},
      {"serial number of another tag", Der(0x30, Der(0x30, Der(0x04, "x"))), false,
       get + "serial number|"},
      {"last bytes missing", good.substr(0, good.size() - 2), true, ""},
  };
  for (const auto& row : rows) {
    TraceCapture trace;
    EXPECT_EQ(LoadCertificate(BytesOf(row.value)) != nullptr, row.loads) << row.name;
    std::string lines;
    for (const std::string& line : trace.Lines()) lines += line + "|";
    EXPECT_EQ(lines, row.lines) << row.name;
  }
}

TEST(CDerCert, ReadsTheOddButValid) {
  Recipe open;
  open.sequence = Open;
  Recipe crowded;
  crowded.extensions.clear();
  for (int i = 0; i < 32; ++i) crowded.extensions += Extension("1.2.3." + std::to_string(i), "v");
  crowded.extensions += Extension(kExtendedKeyUsage, "late");
  Recipe large;
  large.subject = Part("o", std::string(16384, ',')) + Part("cn", std::string(8000, 'x'));
  Recipe own;
  own.subject = own.issuer;

  EXPECT_EQ(LogonName(LoadCertificate(BytesOf(open.Build())), true, false), "ann@example.org");
  const CertificatePtr many = LoadCertificate(BytesOf(crowded.Build()));
  ASSERT_NE(many, nullptr);
  Bytes value;
  EXPECT_TRUE(GetExtension(*many, "1.2.3.31", value));
  EXPECT_EQ(ToHex(value), "040176");
  EXPECT_FALSE(GetExtension(*many, kExtendedKeyUsage, value)) << "the 33rd";
  const CertificatePtr big = LoadCertificate(BytesOf(large.Build()));
  ASSERT_NE(big, nullptr);
  EXPECT_EQ(GetSubjectText(*big), "") << "escaped it is larger than the certificate";
  EXPECT_EQ(LogonName(big, true, false), "ann@example.org");
  EXPECT_TRUE(LoadCertificate(BytesOf(own.Build()))->certificate.IsSelfSigned());
  EXPECT_FALSE(big->certificate.IsSelfSigned());
}

TEST(CDerCert, ExpiresByUtcTimeOnly) {
  struct {
    const char* time;
    int tag;
    bool expired, copied;
  } const rows[] = {
      {"250101000000Z", 0x17, true, true},
      {"491231235959Z", 0x17, false, true},
      {"991231235959Z", 0x17, false, true},  // 1999, but the century is not looked at
      {"20150101000000Z", 0x18, false, true},
      {"1501010000+00", 0x17, false, true},
      {"", 0x17, false, false},
      {"15010100000000000000000000000000", 0x17, false, false},
  };
  for (const auto& row : rows) {
    Recipe recipe;
    recipe.notAfter = Der(row.tag, row.time);
    CDerCert certificate;
    ASSERT_EQ(certificate.SetData(BytesOf(recipe.Build())), kDerOk) << row.time;
    EXPECT_EQ(certificate.IsExpired(), row.expired) << row.time;
    char notBefore[32] = "x", notAfter[32] = "x";
    certificate.CopyValidity(notBefore, notAfter);
    EXPECT_STREQ(notAfter, row.copied ? row.time : "");
    EXPECT_STREQ(notBefore, row.copied ? "200101000000Z" : "");
  }
}

TEST(MatchCertificate, EveryGivenThingMustHold) {
  const std::string value = Recipe().Build();
  const std::string serial = FromHex("02012A"), usage = FromHex("040403020780");
  struct {
    const char* name;
    std::string value, serial, issuer, subject, usage;
    bool matches;
  } const rows[] = {
      {"nothing asked", value, "", "", "", "", true},
      {"all of it", value, serial, "o=tessaly", "cn=Ann Lee", usage, true},
      {"serial number without its header", value, "\x2A", "", "", "", false},
      {"other issuer", value, "", "Ann", "", "", false},
      {"other subject", value, "", "", "cn=Card CA", "", false},
      {"other key usage", value, "", "", "", FromHex("0404030205A0"), false},
      {"no certificate", "\x30\x7F\x01\x01", "other", "other", "other", "other", true},
      {"no certificate at all", "text", "other", "", "", "", false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(MatchCertificate(BytesOf(row.value), BytesOf(row.serial), row.issuer, row.subject,
                               BytesOf(row.usage)),
              row.matches)
        << row.name;
  }
}

TEST(CertificateHolder, RanksDuplicates) {
  const auto load = [](const char* notBefore, int tag, const char* notAfter) {
    Recipe recipe;
    recipe.notBefore = Der(0x17, notBefore);
    recipe.notAfter = Der(tag, notAfter);
    return LoadCertificate(BytesOf(recipe.Build()));
  };
  const CertificatePtr older = load("990101000000Z", 0x17, "491231235959Z");
  const CertificatePtr newer = load("200101000000Z", 0x17, "491231235959Z");
  const CertificatePtr longest = load("990101000000Z", 0x18, "20500101000000Z");
  EXPECT_TRUE(RanksHigher(*newer, *older));
  EXPECT_FALSE(RanksHigher(*older, *newer));
  EXPECT_TRUE(RanksHigher(*longest, *newer));
  EXPECT_FALSE(RanksHigher(*newer, *newer));
  EXPECT_TRUE(IsSameCertificate(*newer, *newer));
  EXPECT_FALSE(IsSameCertificate(*newer, *older));

  TraceCapture trace;
  EXPECT_TRUE(AreDuplicates(*newer, *older));
  EXPECT_TRUE(trace.Has("Certificate - Duplicate"));
  Recipe different;
  different.subject = different.issuer;
  EXPECT_FALSE(AreDuplicates(*newer, *LoadCertificate(BytesOf(different.Build()))));
  different = {};
  different.extensions.clear();
  const CertificatePtr anyUse = LoadCertificate(BytesOf(different.Build()));
  EXPECT_FALSE(AreDuplicates(*newer, *anyUse));
  EXPECT_TRUE(AreDuplicates(*anyUse, *anyUse));
  older->slot = 4;
  EXPECT_FALSE(AreDuplicates(*newer, *older));
  longest->superseded = true;
  EXPECT_FALSE(AreDuplicates(*newer, *longest));
}

TEST(GetKeyUsageBits, GivesTheLastByte) {
  const std::pair<const char*, int> rows[] = {
      {"030205A0", 0xA0}, {"0303070680", 0x80}, {"030105", 0}, {"0309", 0}};
  Recipe recipe;
  std::uint8_t bits = 0x55;
  for (const auto& [extension, expected] : rows) {
    recipe.extensions = Extension(kKeyUsage, FromHex(extension));
    EXPECT_TRUE(GetKeyUsageBits(LoadCertificate(BytesOf(recipe.Build()))->certificate, bits));
    EXPECT_EQ(bits, expected) << extension;
  }
  recipe.extensions.clear();
  EXPECT_FALSE(GetKeyUsageBits(LoadCertificate(BytesOf(recipe.Build()))->certificate, bits));
}

}  // namespace
}  // namespace qixx::testing
