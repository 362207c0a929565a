#include "watch/credentials.h"

#include "runtime/trace.h"
#include "watch/card_text.h"
#include "watch/certificate_selection.h"

namespace qixx::watch {
namespace {

constexpr std::string_view kFastMatch = "fast";
constexpr std::string_view kActiveLogonName = "ActiveLogonUPN";

/// A cleaned value, nothing when it is too long to be one.
std::string ValueOrNothing(std::string_view value) {
  return value.size() > kMaxLogonValue ? std::string() : CleanCardText(value);
}

/// A cleaned value, cut when it is too long to be one.
std::string CutValue(std::string_view text) {
  if (text.size() <= kMaxLogonValue) return CleanCardText(text);
  const auto isTail = [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0) == 0x80; };
  std::size_t length = kMaxLogonValue;
  while (length > 0 && isTail(text[length])) --length;
  return CleanCardText(text.substr(0, length));
}

std::optional<Selection> SelectCredential(CardReader& card, std::string_view match) {
  return SelectCertificate(card.CollectCertificates(), SelectionMatch(match));
}

}  // namespace

std::optional<LogonValues> FindLogonCredential(CardReader& card, std::string_view match,
                                               CK_SLOT_ID slot) {
  if (runtime::EqualsNoCase(match, kFastMatch)) {
    const std::string upn = ValueOrNothing(card.TokenVariable(slot, kActiveLogonName).value_or(""));
    if (!upn.empty()) {
      runtime::TraceWrite("Watch - Found active logon UPN %s", upn.c_str());
      if (slot == kNoSlot) return std::nullopt;
      return LogonValues{.upn = upn};
    }
  }
  const std::optional<Selection> found = SelectCredential(card, match);
  if (!found) return std::nullopt;
  // A subject is cut where the other values are left out: its first components still tell who.
  return LogonValues{.upn = ValueOrNothing(found->values.upn),
                     .subject = CutValue(found->values.subject),
                     .serial = ValueOrNothing(found->values.serial)};
}

bool IsCredentialStillPresent(CardReader& card, std::string_view match) {
  return SelectCredential(card, match).has_value();
}

bool IsMatchingCardPresent(CardReader& card, std::string_view match) {
  if (match.empty()) return true;
  const std::optional<CredentialMatch> wanted = ParseMatchText(match);
  return wanted && card.HasCertificateOf(wanted->name, wanted->Slot());
}

LogonName SplitPrincipalName(std::string_view upn) {
  const std::size_t at = upn.find('@');
  LogonName name{CleanCardText(upn.substr(0, at)), {}};
  if (at != std::string_view::npos) name.domain = CleanCardText(upn.substr(at + 1));
  return name;
}

}  // namespace qixx::watch
