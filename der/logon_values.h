// What a certificate says of the person who logs on with it. All functions may be called from any
// thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "der/certificate.h"

namespace qixx::der {

inline constexpr std::string_view kSmartCardLogon = "1.3.6.1.4.1.311.20.2.2";
inline constexpr std::string_view kUserPrincipalName = "1.3.6.1.4.1.311.20.2.3";

/// The user principal name, if it is what the first other-name of the subject alternative name
/// holds. With `emailWanted` the e-mail address instead: the subject's up to its first comma, or
/// for a subject without that attribute the first of the alternative names. Never empty. The bytes
/// are those of the certificate, zero bytes included, and the caller cuts them where it must.
[[nodiscard]] std::optional<std::string> GetPrincipalName(const CertificateHolder& holder,
                                                          bool emailWanted);

/// The name to log on with: the principal name, or when there is none and `emailAllowed` the e-mail
/// address. With `smartCardLogonRequired` only from a certificate made for smart-card logon.
[[nodiscard]] std::optional<std::string> GetLogonName(const CertificateHolder& holder,
                                                      bool smartCardLogonRequired,
                                                      bool emailAllowed);

struct CertificateLogonValues {
  std::string upn = {};      ///< the name to log on with; empty when there is none
  std::string subject = {};  ///< as text (der/names.h)
  std::string serial = {};   ///< upper-case hexadecimal of the content bytes
};

/// All values, uncut. Subject and serial number are there without a name to log on with too, but
/// all are empty when `smartCardLogonRequired` asks for another certificate.
[[nodiscard]] CertificateLogonValues GetLogonValues(const CertificateHolder& holder,
                                                    bool smartCardLogonRequired, bool emailAllowed);

}  // namespace qixx::der
