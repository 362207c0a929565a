#include "der/certificate.h"

#include "der/names.h"
#include "tests/support/recipes.h"
#include "tests/support/trace_capture.h"

namespace qixx::testing {
namespace {

CertificatePtr Load(const Recipe& recipe) {
  return LoadCertificate(BytesOf(recipe.Build()));
}

TEST(LogonName, FollowsTheNames) {
  const std::string mail = Der(0x81, "m@x"), zero("a\0b", 3);
  const std::tuple<const char*, std::string, std::string, std::string> rows[] = {
      {"zero byte", "", OtherName(kUserPrincipalName, zero), zero},
      {"empty", "", OtherName(kUserPrincipalName, "") + mail, "m@x"},
      {"e-mail to its first comma", Part(kEmailAttribute, "a+b,c@x", 0x16), mail, "a+b"},
      {"empty e-mail in the subject", Part(kEmailAttribute, "", 0x16), mail, ""},
      {"e-mail posing in a value", Part("cn", "x,1.2.840.113549.1.9.1=x@y"), "", ""},
  };
  for (const auto& [name, subject, names, logonName] : rows) {
    const CertificatePtr holder = Load({.subject = subject, .alternativeNames = names});
    EXPECT_EQ(LogonName(holder, false, true), logonName) << name;
  }
}

TEST(GetLogonValues, FillsAreasOfEverySize) {
  const auto ask = [](const Recipe& recipe, bool required, std::size_t upnSize, std::size_t size) {
    char upn[16] = "x", subject[16] = "x", serial[16] = "x";
    const bool found = GetLogonValues(BytesOf(recipe.Build()), required, true, upn, upnSize,
                                      subject, size, serial, size);
    return std::string(found ? "yes|" : "no|") + upn + "|" + subject + "|" + serial;
  };
  EXPECT_EQ(ask({}, true, 15, 16), "yes|ann@example.org|o=Example\\, Inc|2A");
  EXPECT_EQ(ask({}, true, 3, 2), "yes|ann|o|");
  EXPECT_EQ(ask({.extensions = ""}, true, 15, 16), "no|||");
  EXPECT_EQ(ask({.alternativeNames = ""}, false, 15, 16), "no||o=Example\\, Inc|2A");
}

TEST(LoadCertificate, TakesDerAndBase64) {
  const std::string der = Recipe().Build();
  char* text = nullptr;
  Base64EncodeLines(BytesOf(der), text);
  const std::unique_ptr<char[]> owner(text);
  const std::string base64 = text, armoured = "-----BEGIN X-----\r\n" + base64 + "-----\n" + base64;
  for (const std::string& form : {base64, armoured, der + "behind"}) {
    const CertificatePtr holder = LoadCertificate(BytesOf(form));
    ASSERT_NE(holder, nullptr) << form;
    EXPECT_TRUE(IsSameCertificate(*holder, *LoadCertificate(BytesOf(der)))) << form;
  }
}

TEST(LoadCertificate, TellsWhatIsWrong) {
  const std::string good = Recipe().Build(), info = Recipe().Info(), ours = "DerCertificate - ";
  const std::string length = "Der - Invalid length encoding", top = ours + "Failed to decode top ";
  const std::string get = ours + "Failed to get signature";
  const std::string badTag = Der(0x30, info + Der(0x30, "") + Der(0x04, ""));
  const std::string open = Open(0x30, good.substr(4)), fourth = Recipe().Build("\x05\x01z");
  struct {
    const char* name;
    std::string value;
    bool loads;
    std::vector<std::string> lines = {};
  } const rows[] = {
      {"other first byte", "\x31\x03\x02\x01\x01", false},
      {"base64 of something else", "MQMCAQE=", false},
      {"0x30 alone", "\x30", true, {ours + "Bad certificate value"}},
      {"too short", FromHex("30050000"), false, {length, length, top + "sequence (4 bytes)"}},
      {"a fourth part", fourth, false, {ours + "3 bytes ignored at end"}},
      {"indefinite as a whole", open, false, {ours + "2 bytes ignored at end"}},
      {"info alone", Der(0x30, info), false, {length, get + " algorithm", length, get}},
      {"signature of another tag", badTag, false, {get}},
      {"last bytes missing", good.substr(0, good.size() - 2), true},
  };
  for (const auto& row : rows) {
    TraceCapture trace;
    EXPECT_EQ(LoadCertificate(BytesOf(row.value)) != nullptr, row.loads) << row.name;
    EXPECT_EQ(trace.Lines(), row.lines) << row.name;
  }
}

TEST(CDerCert, ReadsManyExtensionsAndLargeValues) {
  Recipe recipe;
  recipe.subject = Part("o", std::string(16384, ',')) + Part("cn", std::string(8000, 'x'));
  const CertificatePtr large = Load(recipe);
  EXPECT_EQ(GetSubjectText(*large), "") << "escaped it is larger than the certificate";
  EXPECT_FALSE(large->certificate.IsSelfSigned());
  EXPECT_EQ(large->certificate.SetData(BytesOf("\x30")), kDerOk);
  EXPECT_EQ(LogonName(large, false, true), "") << "nothing is left of the first value";

  recipe.extensions.clear();
  for (int i = 0; i < 32; ++i) recipe.extensions += Extension("1.2.3." + std::to_string(i), "v");
  const CertificatePtr many = Load(recipe);
  EXPECT_EQ(ToHex(many->certificate.FindExtension("1.2.3.31")), "040176");
  EXPECT_EQ(LogonName(many, false, true), "") << "the 33rd";
}

TEST(CDerCert, ExpiresByUtcTimeOnly) {
  // The century is not looked at, so 1999 is to come.
  for (const auto& [time, tag, expired] : {std::tuple("250101000000Z", 0x17, true),
                                           {"991231235959Z", 0x17, false},
                                           {"20150101000000Z", 0x18, false},
                                           {"1501010000+00", 0x17, false}}) {
    const CertificatePtr holder = Load({.notAfter = Der(tag, time)});
    EXPECT_EQ(holder->certificate.IsExpired(), expired) << time;
    char notBefore[15] = "x", notAfter[15] = "x";
    holder->certificate.CopyValidity(notBefore, notAfter);
    EXPECT_STREQ(notBefore, tag == 0x17 ? "200101000000Z" : "") << "both or neither";
  }
}

TEST(MatchCertificate, EveryGivenThingMustHold) {
  const std::string text = Recipe().Build(), usage = FromHex("040403020780");
  const Bytes value = BytesOf(text), serial = BytesOf("\x02\x01\x2A");
  EXPECT_TRUE(MatchCertificate(value, serial, "o=tessaly", "cn=Ann Lee", BytesOf(usage)));
  EXPECT_FALSE(MatchCertificate(value, serial.last(1), "", "", {})) << "without its header";
  EXPECT_FALSE(MatchCertificate(value, {}, "Ann", "", {}));
  EXPECT_FALSE(MatchCertificate(value, {}, "", "cn=Card CA", {}));
  EXPECT_FALSE(MatchCertificate(value, {}, "", "", serial));
  EXPECT_TRUE(MatchCertificate(BytesOf("0abc"), serial, "x", "x", serial)) << "does not parse";
}

TEST(CertificateHolder, RanksDuplicates) {
  const CertificatePtr newer = Load({});
  const CertificatePtr older = Load({.notBefore = Der(0x17, "990101000000Z")});
  const CertificatePtr longest = Load({.notAfter = Der(0x18, "20500101000000Z")});
  EXPECT_TRUE(RanksHigher(*newer, *older));
  EXPECT_FALSE(RanksHigher(*older, *newer));
  EXPECT_TRUE(RanksHigher(*longest, *newer));
  EXPECT_FALSE(IsSameCertificate(*newer, *older));
  EXPECT_TRUE(AreDuplicates(*newer, *older));
  EXPECT_FALSE(AreDuplicates(*newer, *Load({.issuer = Part("o", "Other")})));
  EXPECT_FALSE(AreDuplicates(*newer, *Load({.subject = Part("cn", "Ann")})));
  EXPECT_FALSE(AreDuplicates(*newer, *Load({.extensions = ""})));
  older->slot = 4;
  EXPECT_FALSE(AreDuplicates(*newer, *older));
  longest->superseded = true;
  EXPECT_FALSE(AreDuplicates(*newer, *longest));
}

}  // namespace
}  // namespace qixx::testing
