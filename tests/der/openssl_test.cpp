// Certificates made by the openssl program, read side by side with it.
#include "tests/support/openssl.h"

#include "der/names.h"
#include "tests/support/recipes.h"
#include "tests/support/temporary_folder.h"

namespace qixx::testing {
namespace {

#define UPN "otherName:1.3.6.1.4.1.311.20.2.3;UTF8:"

struct Row {
  const char* name;
  std::string subject;         // lines of the name section
  std::string names = {};      // subject alternative names
  std::string logonName = {};  // with the e-mail address allowed
  std::string strings = "utf8only";
  std::string serial = "0x2A";
  std::string key = "ec -pkeyopt ec_paramgen_curve:P-256";
};

const std::string kAnn = "CN=Ann\n";
const std::string kLong = "SN=" + std::string(200, 'x') + "\n";
const std::string kMany =
    "0.OU=a\n1.O=b\n2.OU=c\n3.O=d\n4.OU=e\n5.O=f\n6.OU=g\n7.O=h\n8.OU=i\n9.O=j\n"
    "10.OU=k\n11.O=l\n12.OU=m\n13.O=n\n14.OU=o\n15.O=p\n16.OU=q\n17.O=r\n18.OU=s\n19.O=t\n";
const std::string kSerial20 = "0x7F0102030405060708090A0B0C0D0E0F10111213";

const Row kRows[] = {
    {"RSA key", kAnn, UPN "ann@x", "ann@x", "utf8only", "0x2A", "rsa:2048"},
    {"UPN behind others", kAnn, "email:m@x,DNS:x," UPN "ann@x", "ann@x"},
    {"UPN without @", kAnn, UPN "ann", "ann"},
    {"another other-name first", kAnn, "otherName:1.2.3;UTF8:x," UPN "ann@x"},
    {"e-mail in the subject", "emailAddress=a+b@x\n" + kAnn, "email:m@x", "a+b@x"},
    {"e-mail beside", kAnn, "URI:urn:x,email:m@x,email:n@x", "m@x"},
    {"no name at all", kAnn, "DNS:x"},
    {"UTF8String", "C=DE\nL=K\u00f6ln\nCN=J\u00fcrgen \u20ac\nO=\u65e5\u672c\n"},
    {"PrintableString", "CN=Ann\nserialNumber=1-2\n", "", "", "MASK:0x0002"},
    {"T61String", "CN=J\u00fcrgen\nO=\u00c4,\n", "", "", "MASK:0x0004"},
    {"BMPString", "CN=J\u00fcr\u20ac\nO=A,B\n", "", "", "MASK:0x0800"},
    {"IA5String", "0.DC=org\n1.DC=example\nCN=Ann\n"},
    {"multi-valued", "C=DE\nCN=Ann\n+SN=Lee\n+OU=Card\n"},
    {"separators", "O=Example, Inc.\nOU=a+b=c\nGN=\"\\\\,+;<> \"\n"},
    {"200 characters, serial of 1 byte", kLong, "", "", "utf8only", "0x7F"},
    {"serial with a leading zero", kAnn, "", "", "utf8only", "0x80"},
    {"20 components, serial of 20 bytes", kMany, "", "", "utf8only", kSerial20},
};

std::string Request(const Row& row) {
  return "[req]\nprompt=no\nutf8=yes\ndistinguished_name=dn\nx509_extensions=ext\nstring_mask=" +
         row.strings + "\n[dn]\n" + row.subject +
         "[ext]\nextendedKeyUsage=critical,clientAuth,1.3.6.1.4.1.311.20.2.2\n" +
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
  if (serial[0] == 0) serial = serial.subspan(1);
  char notBefore[32], notAfter[32];
  holder.certificate.CopyValidity(notBefore, notAfter);
  return text + "serial=" + ToHex(serial) + "\nnotBefore=20" + notBefore + "\nnotAfter=20" +
         notAfter + "\n";
}

TEST(Openssl, AgreesOnWhatACertificateSays) {
  if (OutputOf("openssl version").empty()) GTEST_SKIP() << "there is no openssl program";
  const TemporaryFolder folder;
  const std::string in = "cd " + folder.Path() + " && openssl ";
  const std::string read = in + "x509 -in certificate -inform DER -noout ";
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.name);
    folder.Write("request", Request(row));
    OutputOf(in + "req -x509 -config request -days 9 -multivalue-rdn -outform DER -nodes -newkey " +
             row.key + " -keyout key -set_serial " + row.serial + " -out certificate 2>&1");
    const CertificatePtr holder = LoadCertificate(BytesOf(folder.Read("certificate")));
    ASSERT_NE(holder, nullptr);
    // Several values of one part stand on one line there, dates have separators.
    const std::string theirs =
        OutputOf(read +
                 "-subject -serial -dates -dateopt iso_8601 -nameopt oid,sep_multiline,utf8 "
                 "| sed -e 's/ + /\\n    /g' -e '/^not/s/[-: ]//g'");
    EXPECT_EQ(Ours(*holder), theirs);
    EXPECT_EQ(LogonName(holder, false, true), row.logonName);
    EXPECT_TRUE(holder->certificate.IsSelfSigned() && !holder->certificate.IsExpired());
    const std::string principal = LogonName(holder, true, false);
    EXPECT_EQ(principal, row.names.find(UPN) != std::string::npos ? row.logonName : "");
    const std::string names = OutputOf(read + "-ext subjectAltName 2>&1");
    EXPECT_TRUE(principal.empty() || names.find("UPN::" + principal) != std::string::npos) << names;
  }
}

}  // namespace
}  // namespace qixx::testing
