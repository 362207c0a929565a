// Questions about an encoded certificate, without a holder to load it into.
//
// Spare: asked of this layer by the suite's design, built, called by nothing in this
// program. All functions may be called from any thread.
#pragma once

#include <optional>
#include <string_view>

#include "der/certificate.h"
#include "der/logon_values.h"

namespace qixx::der {

/// Loads a certificate and takes its logon values; nothing when it does not load.
[[nodiscard]] std::optional<CertificateLogonValues> GetLogonValues(Bytes certificate,
                                                                   bool smartCardLogonRequired,
                                                                   bool emailAllowed);

/// Whether an encoded certificate has this serial number (tag and length included), this key-usage
/// extension (its octet string with tag and length) and names that match; empty arguments ask for
/// nothing. Intended: a value that fails to parse matches, so that a caller keeps what it cannot
/// judge.
[[nodiscard]] bool MatchCertificate(Bytes value, Bytes serialNumber, std::string_view issuerFilter,
                                    std::string_view subjectFilter, Bytes keyUsage);

}  // namespace qixx::der
