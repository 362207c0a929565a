// Certificates made by the openssl program, read side by side with it.
#include "tests/support/openssl.h"

#include <gtest/gtest.h>

#include "der/names.h"
#include "tests/support/recipes.h"
#include "tests/support/temporary_folder.h"

namespace qixx::testing {
namespace {

struct Row {
  const char* name;
  std::string subject;  // lines of the name section
  std::string strings = "utf8only";
  std::string serial = "0x2A";
};

const Row kRows[] = {
    {"e-mail", "emailAddress=a+b@x\nCN=Ann\n"},
    {"UTF8String", "C=DE\nL=K\u00f6ln\nCN=J\u00fcrgen \u20ac\nO=\u65e5\u672c\n"},
    {"T61String", "CN=J\u00fcrgen\nO=\u00c4,\n", "MASK:0x0004"},
    {"BMPString", "CN=J\u00fcr\u20ac\nO=A,B\n", "MASK:0x0800"},
    {"multi-valued", "C=DE\nCN=Ann\n+SN=Lee\n+OU=Card\n"},
    {"separators", "O=Example, Inc.\nOU=a+b=c\nGN=\"\\\\,+;<> \"\n"},
    {"serial of 20 bytes and a zero", "CN=Ann\n", "utf8only", "0x80" + std::string(38, '1')},
};

/// What we read, in the words of openssl.
std::string Ours(const der::CertificateHolder& holder) {
  std::string_view subject = holder.certificate.GetSubjectText();
  std::string text = "subject=\n";
  while (const std::optional<der::NameComponent> next = der::NextNameComponent(subject)) {
    const std::string_view dotted = der::DottedAttributeName(next->key);
    text.append("    ").append(dotted.empty() ? next->key : dotted);
    text.append("=" + next->value + "\n");
  }
  const auto [notBefore, notAfter] = holder.certificate.GetValidity();
  return text + "serial=" + runtime::HexEncode(der::GetSerialNumber(holder)) + "\nnotBefore=20" +
         notBefore + "\nnotAfter=20" + notAfter + "\n";
}

TEST(Openssl, AgreesOnWhatACertificateSays) {
  if (OutputOf("openssl version").empty()) GTEST_SKIP() << "there is no openssl program";
  const TemporaryFolder folder;
  const std::string in = "cd " + folder.Path() + " && openssl ";
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.name);
    folder.Write("request",
                 "[req]\nprompt=no\nutf8=yes\ndistinguished_name=dn\nx509_extensions=ext\n"
                 "string_mask=" +
                     row.strings + "\n[dn]\n" + row.subject +
                     "[ext]\nextendedKeyUsage=critical,clientAuth,1.3.6.1.4.1.311.20.2.2\n");
    OutputOf(in + "req -x509 -config request -days 9 -multivalue-rdn -outform DER -nodes -newkey " +
             "ed25519 -keyout key -set_serial " + row.serial + " -out certificate 2>&1");
    const der::CertificatePtr holder = der::LoadCertificate(BytesOf(folder.Read("certificate")));
    ASSERT_NE(holder, nullptr);
    // Several values of one part stand on one line there, dates have separators, and a number has
    // no zero in front of its sign bit.
    const std::string theirs =
        OutputOf(in +
                 "x509 -in certificate -inform DER -noout -subject -serial -dates -dateopt "
                 "iso_8601 -nameopt oid,sep_multiline,utf8 "
                 "| sed -e 's/ + /\\n    /g' -e '/^not/s/[-: ]//g' -e 's/^serial=8/serial=008/'");
    EXPECT_EQ(Ours(*holder), theirs);
    EXPECT_TRUE(holder->certificate.IsSelfSigned() && !holder->certificate.IsExpired());
    EXPECT_TRUE(der::HasExtendedKeyUsage(*holder, der::kSmartCardLogon)) << "the second purpose";
  }
}

}  // namespace
}  // namespace qixx::testing
