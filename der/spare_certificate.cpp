#include "der/spare_certificate.h"

namespace qixx::der {

std::optional<CertificateLogonValues> GetLogonValues(Bytes certificate, bool smartCardLogonRequired,
                                                     bool emailAllowed) {
  const CertificatePtr holder = LoadCertificate(certificate);
  if (holder == nullptr) return std::nullopt;
  return GetLogonValues(*holder, smartCardLogonRequired, emailAllowed);
}

bool MatchCertificate(Bytes value, Bytes serialNumber, std::string_view issuerFilter,
                      std::string_view subjectFilter, Bytes keyUsage) {
  CDerCert certificate;
  if (certificate.SetData(value) != DerResult::kOk) return true;
  if (!serialNumber.empty() && !SameBytes(serialNumber, certificate.SerialNumber())) return false;
  if (!keyUsage.empty() && !SameBytes(keyUsage, certificate.KeyUsage())) return false;
  return certificate.MatchNames(false, issuerFilter) && certificate.MatchNames(true, subjectFilter);
}

}  // namespace qixx::der
