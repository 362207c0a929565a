// Decoding a certificate and taking its logon values, beside OpenSSL doing the same; and collecting
// 128 certificates from a soft card.
#include <benchmark/benchmark.h>
#include <openssl/asn1.h>
#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <filesystem>
#include <optional>
#include <string>

#include "der/certificate.h"
#include "der/logon_values.h"
#include "der/spare_certificate.h"
#include "pkcs11/reader.h"
#include "pkcs11/wrapper.h"
#include "runtime/product.h"
#include "tests/support/environment.h"
#include "tests/support/openssl.h"
#include "tests/support/temporary_folder.h"

namespace qixx::bench {
namespace {

constexpr std::size_t kCertificates = 128;

/// A certificate as a corporate card carries it, in DER; empty when openssl does not make it.
std::string Certificate(const testing::TemporaryFolder& folder, const std::string& serial) {
  const std::string file = folder.Path("certificate.der");
  const bool made = testing::MakeCertificate(
      file, {.subject = "/C=DE/O=Example Org/OU=People/OU=Branch/CN=Ann Lee/serialNumber=4711",
             .serial = serial,
             .more = "-addext keyUsage=digitalSignature -addext "
                     "extendedKeyUsage=1.3.6.1.4.1.311.20.2.2,clientAuth"});
  return made ? testing::TemporaryFolder::ReadFile(file) : std::string();
}

der::Bytes BytesOf(const std::string& text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

void CertificateLogonValues(benchmark::State& state) {
  const testing::TemporaryFolder folder;
  const std::string der = Certificate(folder, "0x0a01");
  for (auto _ : state) {
    const std::optional<der::CertificateLogonValues> values =
        der::GetLogonValues(BytesOf(der), true, false);
    if (!values || values->upn.empty()) state.SkipWithError("no logon values");
  }
}
BENCHMARK(CertificateLogonValues);

/// The same values through OpenSSL: key purpose, principal name, subject text, serial number.
bool OpenSslLogonValues(const std::string& der, std::string& upn, std::string& subject,
                        std::string& serial) {
  const unsigned char* start = BytesOf(der).data();
  X509* certificate = d2i_X509(nullptr, &start, static_cast<long>(der.size()));
  if (certificate == nullptr) return false;
  bool logon = false;
  auto* purposes = static_cast<EXTENDED_KEY_USAGE*>(
      X509_get_ext_d2i(certificate, NID_ext_key_usage, nullptr, nullptr));
  for (int number = 0; number < sk_ASN1_OBJECT_num(purposes); ++number) {
    logon |= OBJ_obj2nid(sk_ASN1_OBJECT_value(purposes, number)) == NID_ms_smartcard_login;
  }
  EXTENDED_KEY_USAGE_free(purposes);
  auto* names = static_cast<GENERAL_NAMES*>(
      X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr));
  for (int number = 0; number < sk_GENERAL_NAME_num(names); ++number) {
    const GENERAL_NAME* name = sk_GENERAL_NAME_value(names, number);
    if (name->type != GEN_OTHERNAME || OBJ_obj2nid(name->d.otherName->type_id) != NID_ms_upn) {
      continue;
    }
    const ASN1_STRING* text = name->d.otherName->value->value.asn1_string;
    upn.assign(reinterpret_cast<const char*>(ASN1_STRING_get0_data(text)),
               static_cast<std::size_t>(ASN1_STRING_length(text)));
  }
  GENERAL_NAMES_free(names);
  BIO* memory = BIO_new(BIO_s_mem());
  X509_NAME_print_ex(memory, X509_get_subject_name(certificate), 0,
                     XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB);
  char* text = nullptr;
  const long length = BIO_get_mem_data(memory, &text);
  subject.assign(text, static_cast<std::size_t>(length));
  BIO_free(memory);
  BIGNUM* number = ASN1_INTEGER_to_BN(X509_get0_serialNumber(certificate), nullptr);
  char* digits = BN_bn2hex(number);
  serial.assign(digits);
  OPENSSL_free(digits);
  BN_free(number);
  X509_free(certificate);
  return logon && !upn.empty();
}

void CertificateLogonValuesOpenSsl(benchmark::State& state) {
  const testing::TemporaryFolder folder;
  const std::string der = Certificate(folder, "0x0a01");
  std::string upn;
  std::string subject;
  std::string serial;
  for (auto _ : state) {
    if (!OpenSslLogonValues(der, upn, subject, serial)) state.SkipWithError("no logon values");
  }
}
BENCHMARK(CertificateLogonValuesOpenSsl);

void CollectFromSoftCard(benchmark::State& state) {
  const testing::TemporaryFolder folder;
  const testing::ScopedVariable readers("QIXX_SOFTCARD", folder.Path().c_str());
  // One real certificate, told apart by its serial number: 0x0101 to 0x0180.
  std::string der = Certificate(folder, "0x0101");
  const std::size_t serial = der.find(std::string("\x02\x02\x01\x01", 4));
  if (serial == std::string::npos) return state.SkipWithError("no certificate");
  for (std::size_t number = 0; number < kCertificates; ++number) {
    der[serial + 3] = static_cast<char>(number);
    folder.Write("1/card/certificate" + std::to_string(number) + ".der", der);
  }
  runtime::InitProductIdentity();
  pkcs11::Pkcs11().SetLibraryPath(QIXX_SOFTCARD);
  if (pkcs11::Pkcs11().Initialize(nullptr) != CKR_OK) return state.SkipWithError("no soft card");
  for (auto _ : state) {
    const auto holders = pkcs11::CHelperPkcs11::CollectCertificates({}, false);
    if (holders.size() != kCertificates) state.SkipWithError("not all were found");
  }
  pkcs11::Pkcs11().Finalize(nullptr);
}
BENCHMARK(CollectFromSoftCard)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace qixx::bench
