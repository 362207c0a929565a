#include "der/certificate.h"

#include <gtest/gtest.h>

#include "der/matching.h"
#include "der/names.h"
#include "der/spare_certificate.h"
#include "runtime/spare_text.h"
#include "tests/support/recipes.h"
#include "tests/support/trace_capture.h"

namespace qixx::testing {
namespace {

der::CertificatePtr Load(const Recipe& recipe) {
  return der::LoadCertificate(BytesOf(recipe.Build()));
}

TEST(GetLogonValues, FollowsTheNames) {
  const std::string upn = OtherName(der::kUserPrincipalName, "u"), other = OtherName("1.2.3", "x");
  const std::string mail = Der(0x81, "m@x"), zero("a\0b", 3);
  const std::tuple<const char*, std::string, std::string, std::string> rows[] = {
      {"zero byte", "", OtherName(der::kUserPrincipalName, zero), zero},
      {"behind other kinds", "", Der(0x82, "x") + mail + upn + other, "u"},
      {"behind another other-name", "", other + upn, ""},
      {"empty", "", OtherName(der::kUserPrincipalName, "") + mail + Der(0x81, "n@x"), "m@x"},
      {"e-mail to its first comma", Part(der::kEmailAttribute, "a+b ,c@x", 0x16), mail, "a+b "},
      {"blank behind", Part(der::kEmailAttribute, "a@x ", 0x16) + Part("cn", "Ann"), mail, "a@x "},
      {"empty e-mail in the subject", Part(der::kEmailAttribute, "", 0x16), mail, ""},
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
  EXPECT_EQ(ask("\x31", false), "none");
}

TEST(Usages, AreListedByBitAndByIdentifier) {
  using Bits = std::vector<unsigned>;
  using Purposes = std::vector<std::string>;
  const std::tuple<const char*, const char*, Bits, Purposes> rows[] = {
      {"03020780", "300B06032A030404010006012A", {0}, {"1.2.3.4", "1.2"}},
      {"030307FF80", "3000", {0, 1, 2, 3, 4, 5, 6, 7, 8}, {}},
      {"0305000180FFFF", "06012A", {7, 8}, {}},  // more bits than have a name
      {"030100", "", {}, {}},
      {"0300", "30", {}, {}},
      {"03", "3003060301", {}, {}},
  };
  for (const auto& [bits, purposes, usages, identifiers] : rows) {
    const der::CertificatePtr holder =
        Load({.extensions = Extension(der::kKeyUsage, FromHex(bits)) +
                            Extension(der::kExtendedKeyUsage, FromHex(purposes))});
    EXPECT_EQ(der::GetKeyUsages(holder->certificate), usages) << bits;
    EXPECT_EQ(der::GetExtendedKeyUsages(*holder), identifiers) << purposes;
  }
}

TEST(LoadCertificate, TakesDerAndBase64) {
  const std::string der = Recipe().Build();
  const std::string base64 = runtime::Base64Encode(BytesOf(der));
  const std::string armoured = "-----BEGIN X-----\r\n" + base64 + "\n-----\n" + base64;
  for (const std::string& form : {base64, armoured, der + "behind"}) {
    const der::CertificatePtr holder = der::LoadCertificate(BytesOf(form));
    ASSERT_NE(holder, nullptr) << form;
    EXPECT_TRUE(holder->certificate.IsSame(der::LoadCertificate(BytesOf(der))->certificate))
        << form;
  }
}

TEST(LoadCertificate, TellsWhatIsWrong) {
  const std::string good = Recipe().Build(), info = Recipe().Info(), ours = "DerCertificate - ";
  const std::string length = "Der - Invalid length encoding", get = ours + "Failed to get ";
  const std::string badTag = Der(0x30, info + Der(0x30, "") + Der(0x04, ""));
  const std::tuple<const char*, std::string, bool, std::vector<std::string>> rows[] = {
      {"other first byte", "\x31\x03\x02\x01\x01", false, {}},
      {"0x30 alone", "\x30", true, {ours + "Bad certificate value"}},
      {"too short",
       FromHex("30050000"),
       false,
       {length, length, ours + "Failed to decode top sequence (4 bytes)"}},
      {"a fourth part", Recipe().Build("\x05\x01z"), false, {ours + "3 bytes ignored at end"}},
      {"info alone",
       Der(0x30, info),
       false,
       {length, get + "signature algorithm", length, get + "signature"}},
      {"half a validity", Recipe{.notAfter = ""}.Build(), false, {}},
      {"signature of another tag", badTag, false, {}},
      {"last bytes missing", good.substr(0, good.size() - 2), true, {}},
  };
  for (const auto& [name, value, loads, lines] : rows) {
    TraceCapture trace;
    EXPECT_EQ(der::LoadCertificate(BytesOf(value)) != nullptr, loads) << name;
    EXPECT_EQ(trace.Lines(), lines) << name;
  }
}

TEST(CDerCert, Keeps32Extensions) {
  Recipe recipe{.extensions = ""};
  for (int i = 0; i < 32; ++i) recipe.extensions += Extension("1.2.3." + std::to_string(i), "v");
  const der::CertificatePtr holder = Load(recipe);
  EXPECT_EQ(runtime::AsText(holder->certificate.GetExtension("1.2.3.31")), "\x04\x01v");
  EXPECT_EQ(LogonName(holder, false, true), "") << "the 33rd";
}

TEST(CDerCert, ExpiresByUtcTimeOnly) {
  // The century is not looked at, so 1999 is to come.
  for (const auto& [time, tag, expired] : {std::tuple("250101000000Z", 0x17, true),
                                           {"991231235959Z", 0x17, false},
                                           {"20150101000000Z", 0x18, false},
                                           {"1501010000+00", 0x17, false}}) {
    const der::CertificatePtr holder = Load({.notAfter = Der(tag, time)});
    EXPECT_EQ(holder->certificate.IsExpired(), expired) << time;
  }
}

TEST(CDerCert, GivesBothTimesOrNone) {
  const std::string longest(31, '1');
  for (const auto& [time, expected] :
       {std::pair("991231235959Z", "200101000000Z 991231235959Z"), {"", " "}}) {
    const der::Validity validity = Load({.notAfter = Der(0x17, time)})->certificate.GetValidity();
    EXPECT_EQ(validity.notBefore + " " + validity.notAfter, expected);
  }
  EXPECT_EQ(Load({.notAfter = Der(0x18, longest)})->certificate.GetValidity().notAfter, longest);
  EXPECT_EQ(Load({.notAfter = Der(0x18, longest + "1")})->certificate.GetValidity().notBefore, "");
}

TEST(CertificateHolder, KeepsIdentifiersOfUpTo64Bytes) {
  const std::vector<std::uint8_t> longest(64, 7), tooLong(65, 8);
  der::CertificateHolder holder;
  holder.SetKeyIdentifier(longest);
  holder.SetKeyIdentifier(tooLong);
  EXPECT_EQ(holder.keyIdentifier, longest);
}

TEST(MatchCertificate, EveryGivenThingMustHold) {
  const std::string text = Recipe().Build(), usage = FromHex("040403020780");
  const der::Bytes value = BytesOf(text), serial = BytesOf("\x02\x01\x2A");
  EXPECT_TRUE(der::MatchCertificate(value, serial, "o=tessaly", "cn=Ann Lee", BytesOf(usage)));
  EXPECT_FALSE(der::MatchCertificate(value, serial.last(1), "", "", {})) << "without its header";
  EXPECT_FALSE(der::MatchCertificate(value, {}, "", "cn=Card CA", {}));
  EXPECT_FALSE(der::MatchCertificate(value, {}, "", "", serial));
  EXPECT_TRUE(der::MatchCertificate(BytesOf("0abc"), serial, "x", "x", serial)) << "does not parse";
}

TEST(CertificateHolder, RanksDuplicates) {
  const der::CertificatePtr newer = Load({});
  const der::CertificatePtr older = Load({.notBefore = Der(0x17, "990101000000Z")});
  EXPECT_TRUE(der::AreDuplicates(*newer, *older) && der::RanksHigher(*newer, *older));
  EXPECT_TRUE(der::RanksHigher(*Load({.notAfter = Der(0x18, "20500101000000Z")}), *newer));
  EXPECT_FALSE(der::AreDuplicates(*newer, *Load({.issuer = Part("o", "Other")})));
  EXPECT_FALSE(der::AreDuplicates(*newer, *Load({.subject = Part("cn", "Ann")})));
  EXPECT_FALSE(der::AreDuplicates(*newer, *Load({.extensions = ""})));
}

}  // namespace
}  // namespace qixx::testing
