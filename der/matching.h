// Asking whether a certificate is the wanted one, and which of two duplicates counts.
#pragma once

#include <string_view>

#include "der/certificate.h"

namespace qixx::der {

/// CDerCert::MatchNames; a null filter matches.
[[nodiscard]] bool MatchNames(const CDerCert& certificate, bool subjectByDefault,
                              std::string_view filter);

/// Whether an encoded certificate has this serial number (tag and length included), this key-usage
/// extension (its octet string with tag and length) and names that match; empty arguments ask for
/// nothing. A value that fails to parse matches, as intended.
[[nodiscard]] bool MatchCertificate(Bytes value, Bytes serialNumber, std::string_view issuerFilter,
                                    std::string_view subjectFilter, Bytes keyUsage);

/// Byte for byte the same certificate.
[[nodiscard]] bool IsSameCertificate(const CertificateHolder& a, const CertificateHolder& b);

/// Two certificates of one slot group, neither superseded, that agree in issuer, subject and key
/// usage. Traces a duplicate.
[[nodiscard]] bool AreDuplicates(const CertificateHolder& a, const CertificateHolder& b);

/// Whether `a` outranks `b`: by the later end of validity, then by the later start. Of two that
/// rank the same the one found first is kept, so the answer is false.
[[nodiscard]] bool RanksHigher(const CertificateHolder& a, const CertificateHolder& b);

}  // namespace qixx::der
