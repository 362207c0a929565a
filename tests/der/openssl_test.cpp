// Certificates made by the openssl program, read side by side with it.
#include "tests/support/openssl.h"

#include <gmock/gmock.h>

#include "der/names.h"
#include "tests/der/recipes.h"
#include "tests/support/temporary_folder.h"

namespace qixx::testing {
namespace {

#define UPN "otherName:1.3.6.1.4.1.311.20.2.3;UTF8:"

struct Row {
  const char* name;
  std::string subject = "CN=Ann\n";  // lines of the name section
  std::string names = {};            // subject alternative names
  std::string logonName = {};        // with the e-mail address allowed
  bool smartCard = false;            // the same when smart-card logon is required
  std::string serial = "0x2A";
  std::string strings = "utf8only";
  std::string key = "ec";
  std::string purposes = "critical,clientAuth,1.3.6.1.4.1.311.20.2.2";
};

std::string TwentyComponents() {
  std::string lines;
  for (int i = 0; i < 20; ++i) lines += std::to_string(i) + (i % 2 == 0 ? ".OU=x" : ".O=y") + "\n";
  return lines;
}

const Row kRows[] = {
    {.name = "RSA key",
     .names = UPN "ann@x",
     .logonName = "ann@x",
     .smartCard = true,
     .key = "rsa"},
    {"EC key", "C=DE\nO=Example\nL=Bonn\nCN=Ann\n", UPN "ann@x", "ann@x", true},
    {"UPN behind others", "CN=Ann\n", "email:m@x,DNS:x," UPN "ann@x", "ann@x", true},
    {"UPN without @", "CN=Ann\n", UPN "ann", "ann", true},
    {"another other-name first", "CN=Ann\n", "otherName:1.2.3;UTF8:x," UPN "ann@x"},
    {.name = "no card logon", .names = UPN "ann", .logonName = "ann", .purposes = "clientAuth"},
    {"e-mail in the subject", "emailAddress=a+b@x\nCN=Ann\n", "email:m@x", "a+b@x"},
    {"e-mail beside", "CN=Ann\n", "URI:urn:x,email:m@x,email:n@x", "m@x"},
    {"no name at all", "CN=Ann\n", "DNS:x"},
    {"UTF8String", "CN=J\u00fcrgen \u20ac\nO=\u65e5\u672c\n"},
    {.name = "PrintableString", .subject = "CN=Ann\nserialNumber=1-2\n", .strings = "MASK:0x0002"},
    {.name = "T61String", .subject = "CN=J\u00fcrgen\nO=\u00c4\n", .strings = "MASK:0x0004"},
    {.name = "BMPString", .subject = "CN=J\u00fcr\u20ac\nO=A,B\n", .strings = "MASK:0x0800"},
    {.name = "UniversalString", .subject = "CN=\u00fc\U0001F600\n", .strings = "MASK:0x0100"},
    {"IA5String", "0.DC=org\n1.DC=example\nCN=Ann\n"},
    {"multi-valued", "C=DE\nCN=Ann\n+SN=Lee\n+OU=Card\n"},
    {"separators", "O=Example, Inc.\nOU=a+b=c\nGN=\\\\,+;<>\n"},
    {"200 characters", "SN=" + std::string(200, 'x') + "\n"},
    {"20 components", TwentyComponents()},
    {.name = "serial of 1 byte", .serial = "0x7F"},
    {.name = "serial with a leading zero", .serial = "0x80"},
    {.name = "serial of 20 bytes", .serial = "0x7F0102030405060708090A0B0C0D0E0F10111213"},
};

std::string Request(const Row& row) {
  return "[req]\nprompt=no\nutf8=yes\ndistinguished_name=dn\nx509_extensions=ext\nstring_mask=" +
         row.strings + "\n[dn]\n" + row.subject + "[ext]\nextendedKeyUsage=" + row.purposes + "\n" +
         (row.names.empty() ? "" : "subjectAltName=" + row.names + "\n");
}

/// What we read, in the words of openssl.
std::string Ours(const CertificateHolder& holder) {
  std::string_view subject = GetSubjectText(holder);
  std::string text = "subject=\n", key, value;
  while (NextNameComponent(subject, key, value)) {
    const std::string_view dotted = DottedAttributeName(key);
    text.append("    ").append(dotted.empty() ? key : dotted).append("=" + value + "\n");
  }
  Bytes serial = GetSerialNumber(holder);
  if (serial.size() > 1 && serial[0] == 0) serial = serial.subspan(1);
  char notBefore[32], notAfter[32];
  holder.certificate.CopyValidity(notBefore, notAfter);
  return text + "serial=" + ToHex(serial) + "\n" + "notBefore=20" + notBefore + "\nnotAfter=20" +
         notAfter + "\n";
}

TEST(Openssl, AgreesOnWhatACertificateSays) {
  if (OutputOf("openssl version").empty()) GTEST_SKIP() << "there is no openssl program";
  const TemporaryFolder folder;
  const std::string in = "cd " + folder.Path() + " && openssl ";
  OutputOf(in + "genrsa -out rsa 2048 2>&1");
  OutputOf(in + "ecparam -name prime256v1 -genkey -noout -out ec 2>&1");
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.name);
    folder.Write("request", Request(row));
    OutputOf(in + "req -new -x509 -config request -days 9 -multivalue-rdn -outform DER -key " +
             row.key + " -set_serial " + row.serial + " -out certificate 2>&1");
    // Several values of one part stand on one line there, dates have separators.
    const std::string theirs = OutputOf(
        in +
        "x509 -inform DER -in certificate -noout -subject -serial -dates -dateopt iso_8601 "
        "-nameopt oid,sep_multiline,utf8 | sed -e 's/ + /\\n    /g' -e '/^not/s/[-: ]//g'");
    const CertificatePtr holder = LoadCertificate(BytesOf(folder.Read("certificate")));
    ASSERT_NE(holder, nullptr);
    EXPECT_EQ(Ours(*holder), theirs);
    EXPECT_EQ(LogonName(holder, false, true), row.logonName);
    EXPECT_EQ(LogonName(holder, true, false), row.smartCard ? row.logonName : "");
    EXPECT_TRUE(holder->certificate.IsSelfSigned());
    EXPECT_FALSE(holder->certificate.IsExpired());
    if (!row.smartCard) continue;
    EXPECT_THAT(OutputOf(in + "x509 -inform DER -in certificate -noout -ext subjectAltName"),
                ::testing::HasSubstr("UPN::" + row.logonName));
  }
}

}  // namespace
}  // namespace qixx::testing
