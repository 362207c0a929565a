// The few things a certificate object needs from a certificate's encoding (X.690, RFC 5280, RFC
// 7468).
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qixx::softcard {

/// Whole elements, tag and length included, as PKCS#11 wants them; views into the certificate.
struct CertificateFields {
  std::string_view serialNumber;
  std::string_view issuer;
  std::string_view subject;
};

/// All three are empty when the certificate does not parse up to its subject.
[[nodiscard]] CertificateFields CutCertificate(std::string_view certificate);

/// The certificates between their BEGIN and END lines; a block with a stray character is left out.
[[nodiscard]] std::vector<std::string> CertificatesOfPem(std::string_view text);

}  // namespace qixx::softcard
