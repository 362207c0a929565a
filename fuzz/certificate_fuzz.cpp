// A certificate: loading it, its logon values, its names and every comparison.
#include <string>

#include "der/certificate.h"
#include "der/logon_values.h"
#include "der/matching.h"
#include "der/names.h"
#include "der/spare_certificate.h"
#include "fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace qixx;
  const der::Bytes bytes(data, size);
  const der::CertificatePtr holder = der::LoadCertificate(bytes);
  if (holder == nullptr) return 0;
  const der::CDerCert& certificate = holder->certificate;
  for (const bool logon : {true, false}) {
    static_cast<void>(der::GetLogonValues(*holder, logon, !logon));
  }
  std::string_view rest = holder->certificate.GetSubjectText();
  while (const std::optional<der::NameComponent> next = der::NextNameComponent(rest)) {
    static_cast<void>(certificate.MatchNames(true, next->key + "=" + next->value));
  }
  static_cast<void>(certificate.MatchNames(false, "subject|cn=a;o=b"));
  static_cast<void>(der::MatchCertificate(bytes, certificate.SerialNumber(), "o=x", "cn=y",
                                          certificate.KeyUsage()));
  static_cast<void>(der::GetKeyUsageBits(certificate));
  static_cast<void>(certificate.GetValidity());
  static_cast<void>(der::AreDuplicates(*holder, *holder));
  static_cast<void>(der::RanksHigher(*holder, *holder));
  return 0;
}
