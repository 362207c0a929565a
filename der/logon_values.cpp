#include "der/logon_values.h"

#include <cstdint>

#include "der/names.h"
#include "runtime/text.h"

namespace qixx::der {
namespace {

// GeneralName (RFC 5280, 4.2.1.6), context-specific tags.
constexpr std::uint8_t kTagOtherName = 0xA0;
constexpr std::uint8_t kTagRfc822Name = 0x81;

/// The content of the first alternative name of a kind, empty when there is none.
Bytes FindAlternativeName(const CertificateHolder& holder, std::uint8_t tag) {
  Bytes rest = ContentOf(ContentOf(holder.certificate.GetExtension(kSubjectAlternativeName)));
  while (const std::optional<DerElement> name = TakeElement(rest)) {
    if (name->Tag() == tag) return name->Content();
  }
  return {};
}

/// OtherName ::= SEQUENCE { type, [0] EXPLICIT value }. The first other-name decides, whatever its
/// type; those behind it are not looked at.
std::string_view FindUserPrincipalName(const CertificateHolder& holder) {
  const Bytes content = FindAlternativeName(holder, kTagOtherName);
  const OidRecord type = ReadOid(content);
  if (!type || type.text != kUserPrincipalName) return {};
  return runtime::AsText(ContentOf(ContentOf(content.subspan(type.element.size()))));
}

/// A subject with an e-mail attribute decides, even by an empty one.
std::string FindEmail(const CertificateHolder& holder) {
  const std::optional<std::string> email =
      FindNameValue(holder.certificate.GetSubjectText(), kEmailAttribute);
  if (email) return email->substr(0, email->find(','));
  return std::string(runtime::AsText(FindAlternativeName(holder, kTagRfc822Name)));
}

}  // namespace

std::optional<std::string> GetPrincipalName(const CertificateHolder& holder, bool emailWanted) {
  std::string name = emailWanted ? FindEmail(holder) : std::string(FindUserPrincipalName(holder));
  if (name.empty()) return std::nullopt;
  return name;
}

std::optional<std::string> GetLogonName(const CertificateHolder& holder,
                                        bool smartCardLogonRequired, bool emailAllowed) {
  if (smartCardLogonRequired && !HasExtendedKeyUsage(holder.certificate, kSmartCardLogon))
    return std::nullopt;
  std::optional<std::string> name = GetPrincipalName(holder, false);
  return name || !emailAllowed ? name : GetPrincipalName(holder, true);
}

CertificateLogonValues GetLogonValues(const CertificateHolder& holder, bool smartCardLogonRequired,
                                      bool emailAllowed) {
  if (smartCardLogonRequired && !HasExtendedKeyUsage(holder.certificate, kSmartCardLogon))
    return {};
  return {.upn = GetLogonName(holder, false, emailAllowed).value_or(std::string()),
          .subject = std::string(holder.certificate.GetSubjectText()),
          .serial = runtime::HexEncode(GetSerialNumber(holder.certificate))};
}

}  // namespace qixx::der
