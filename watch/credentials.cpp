#include "watch/credentials.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <new>
#include <optional>
#include <utility>

#include "der/certificate.h"
#include "der/names.h"
#include "pkcs11/reader.h"
#include "pkcs11/wrapper.h"
#include "runtime/files.h"
#include "runtime/secrets.h"
#include "runtime/trace.h"
#include "watch/card_lock.h"

namespace qixx::watch {
namespace {

constexpr std::size_t kMaxCertificates = 128;
/// As the slot of a match: every slot.
constexpr std::uint8_t kEverySlot = 255;
constexpr std::size_t kMatchValueSize = 2;
constexpr const char* kActiveLogonName = "ActiveLogonUPN";

void ClearArea(std::span<char> area) {
  if (!area.empty()) area[0] = '\0';
}

/// Stores a cleaned value in an area, empty for one that is not wanted or not large enough.
void StoreValue(std::span<char> area, std::string value) {
  CleanCardText(value);
  static_cast<void>(runtime::CopyTextIfFits(area, value));
}

// --- selecting a certificate ------------------------------------------------------------------

/// What a match text asks of a certificate.
struct CredentialMatch {
  char name[runtime::kTextSize] = "";
  std::uint8_t value[kMatchValueSize] = {};
  std::size_t valueLength = 0;

  bool Parse(std::string_view match) { return ParseMatchText(match, name, value, valueLength); }

  [[nodiscard]] bool HasValue() const { return valueLength != 0; }
  [[nodiscard]] std::optional<CK_SLOT_ID> SlotFilter() const {
    if (!HasValue() || value[0] == kEverySlot) return std::nullopt;
    return value[0];
  }

  /// A name without a value asks for nothing here: it has been asked before the event's commands.
  [[nodiscard]] bool Accepts(const der::CertificateHolder& holder) const {
    if (!HasValue()) return true;
    const std::optional<CK_SLOT_ID> slot = SlotFilter();
    if (slot && pkcs11::CHelperPkcs11::NormalizeSlotId(*slot) != holder.slot) return false;
    return der::MatchNames(holder.certificate, true, name);
  }
};

/// Keeps a copy of a certificate beside the trace.
void DumpCertificate(int pass, std::size_t index, const der::CertificateHolder& holder) {
  if (!runtime::TraceIsOn()) return;
  const std::uint8_t* bytes = nullptr;
  std::uint64_t length = 0;
  holder.certificate.GetData(bytes, length);
  char name[32];
  std::snprintf(name, sizeof name, "cert%d%d.cer", pass, static_cast<int>(index));
  runtime::TraceDump(name, {bytes, static_cast<std::size_t>(length)});
}

/// The first certificate that yields a name to log on with: one made for smart-card logon in the
/// first pass, any other (and an e-mail address in place of the name) in the second. A match with a
/// value asks for the first kind alone.
const der::CertificateHolder* SelectCertificate(std::span<const der::CertificatePtr> certificates,
                                                const CredentialMatch& match, std::string& upn) {
  const int passes = match.HasValue() ? 1 : 2;
  for (int pass = 0; pass < passes; ++pass) {
    const bool forLogon = pass == 0;
    for (std::size_t index = 0; index < certificates.size(); ++index) {
      const der::CertificateHolder* const holder = certificates[index].get();
      if (holder == nullptr) break;
      DumpCertificate(pass, index, *holder);
      if (holder->superseded || !match.Accepts(*holder)) continue;
      if (der::GetLogonName(*holder, forLogon, !forLogon, upn) && !upn.empty()) return holder;
    }
  }
  return nullptr;
}

std::string SerialText(const der::CertificateHolder& holder) {
  const der::Bytes number = der::GetSerialNumber(holder);
  std::array<char, runtime::kTextSize> text{};
  if (runtime::HexEncode(number, std::span(text).first(runtime::kTextSize - 1)) < 0) return {};
  return text.data();
}

bool SelectCredential(const CredentialMatch& match, std::uint64_t& certificate, std::span<char> upn,
                      std::span<char> subject, std::span<char> serial) {
  std::array<der::CertificatePtr, kMaxCertificates + 1> certificates;  // a null place ends the list
  {
    const CardScope card;
    if (!pkcs11::CHelperPkcs11::CollectCertificates(certificates, pkcs11::kAnyKeyUsage, nullptr,
                                                    nullptr, true)) {
      return false;
    }
  }
  std::string name;
  const der::CertificateHolder* const holder = SelectCertificate(certificates, match, name);
  if (holder == nullptr) return false;
  StoreValue(upn, std::move(name));
  // A subject is cut where the other values are left out: its first components still tell who.
  StoreValue(subject, std::string(der::GetSubjectText(*holder).substr(0, runtime::kTextSize - 1)));
  StoreValue(serial, SerialText(*holder));
  certificate = reinterpret_cast<std::uintptr_t>(holder);
  return true;
}

/// The name that the suite notes on a token for whoever is logged on.
bool ReadActiveLogonName(CK_SLOT_ID slot, std::span<char> upn) {
  char name[runtime::kTextSize] = "";
  {
    const CardScope card;
    if (!pkcs11::CHelperPkcs11::GetTokenVariable(slot, false, kActiveLogonName, name)) return false;
  }
  StoreValue(upn, name);
  return upn[0] != '\0';
}

// --- placeholders -----------------------------------------------------------------------------

bool HoldsPlaceholder(std::string_view text) {
  for (const std::string_view name : {kUpnPlaceholder, kUserNamePlaceholder, kDomainPlaceholder,
                                      kSubjectPlaceholder, kSerialPlaceholder, kComponentPrefix}) {
    if (runtime::FindTextNoCase(text, name) != std::string_view::npos) return true;
  }
  return false;
}

void ReplacePlaceholders(std::string_view match, std::span<char> text) {
  LogonValues values;
  std::uint64_t certificate = 0;
  if (!FindLogonCredential(match, certificate, values.upn, values.subject, values.serial)) return;
  runtime::TraceWrite("Watch - Logon credential: '%s'", values.upn);
  runtime::TraceWrite("Watch - Logon subject:    '%s'", values.subject);
  runtime::TraceWrite("Watch - Logon number:     '%s'", values.serial);
  ReplaceLogonPlaceholders(values, text);
}

// --- the logon slot ---------------------------------------------------------------------------

/// The store holds no more than a text for a name, so there is no certificate to go with it.
bool AskCredentialStore(const char* user, std::span<char, kSlotIdentitySize> identity,
                        std::span<std::uint8_t> /*certificate*/, std::size_t& certificateLength) {
  certificateLength = 0;
  return runtime::GetStoredCredential(user, identity);
}

/// This platform does not tell who is logged on.
bool FindNoUser(std::span<char> /*name*/) {
  return false;
}

constexpr LogonQueries kPlatformQueries = {&FindNoUser, &AskCredentialStore};
constinit LogonQueries logonQueries = kPlatformQueries;

bool HasIdentity(CK_SLOT_ID slot, std::span<const char, kSlotIdentitySize> identity) {
  CK_SLOT_INFO info{};
  const CardScope card;
  return pkcs11::Pkcs11().GetSlotInfo(slot, &info) == CKR_OK &&
         std::memcmp(info.slotDescription, identity.data(), identity.size()) == 0;
}

}  // namespace

void CleanCardText(std::span<char> text) {
  // A placeholder in the text may come to nothing, so its '%' is no neighbour to rely on. The index
  // before the first wraps.
  const auto isBreak = [text](std::size_t index) {
    return index >= text.size() || text[index] == ' ' || text[index] == '%';
  };
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const bool control = byte < 0x20 || byte == 0x7F;
    const bool redirection = byte == '>' && isBreak(i - 1) && isBreak(i + 1);
    if (control || byte == '"' || redirection) text[i] = '_';
  }
}

LogonName SplitPrincipalName(std::string_view upn) {
  const std::size_t at = runtime::FindChar(upn, '@');
  LogonName name{std::string(upn.substr(0, at)), {}};
  if (at != std::string_view::npos) name.domain = upn.substr(at + 1);
  CleanCardText(name.user);
  CleanCardText(name.domain);
  return name;
}

std::vector<SubjectPlaceholder> SubjectPlaceholders(std::string_view subject) {
  std::vector<SubjectPlaceholder> placeholders;
  std::string key;
  std::string value;
  while (der::NextNameComponent(subject, key, value)) {
    CleanCardText(value);
    std::string name = std::string(kComponentPrefix) + key + '%';
    const bool known = std::any_of(placeholders.begin(), placeholders.end(),
                                   [&name](const SubjectPlaceholder& other) {
                                     return runtime::EqualsNoCase(other.name, name);
                                   });
    if (!known) placeholders.push_back({std::move(name), value});
  }
  return placeholders;
}

bool ParseMatchText(std::string_view match, std::span<char> name, std::span<std::uint8_t> value,
                    std::size_t& valueLength) {
  const std::size_t bar = runtime::FindCharBack(match, '|');
  const std::string_view head = match.substr(0, bar);
  const std::string_view digits =
      bar == std::string_view::npos ? std::string_view{} : match.substr(bar + 1);
  if (bar != std::string_view::npos && digits.size() >= 2 * value.size()) return false;
  if (!runtime::CopyTextIfFits(name, head)) return false;
  const int decoded = runtime::HexDecode(digits, value);
  valueLength = decoded < 0 ? 0 : static_cast<std::size_t>(decoded);
  return true;
}

bool FindLogonCredential(std::string_view match, std::uint64_t& certificate, std::span<char> upn,
                         std::span<char> subject, std::span<char> serial) {
  ClearArea(upn);
  ClearArea(subject);
  ClearArea(serial);
  try {
    const bool fast = runtime::EqualsNoCase(match, "fast") && !upn.empty();
    if (fast && ReadActiveLogonName(static_cast<CK_SLOT_ID>(certificate), upn)) {
      runtime::TraceWrite("Watch - Found active logon UPN %s", upn.data());
      return certificate != 0;
    }
    CredentialMatch wanted;
    // A match that cannot be read asks for nothing, and neither does the word "fast": it is a name
    // without a value.
    wanted.Parse(match);
    certificate = 0;
    return SelectCredential(wanted, certificate, upn, subject, serial);
  } catch (const std::bad_alloc&) {
    return false;
  }
}

bool IsMatchingCardPresent(std::string_view match) {
  if (match.empty()) return true;
  CredentialMatch wanted;
  if (!wanted.Parse(match)) return false;
  std::array<pkcs11::CertificateEntry, 1> entries;
  const CardScope card;
  return pkcs11::CHelperPkcs11::GetCertificates(wanted.SlotFilter(), pkcs11::kAnyKeyUsage, nullptr,
                                                wanted.name, entries);
}

bool IsCredentialStillPresent(const CWatchOptions& record) {
  std::uint64_t certificate = 0;
  return FindLogonCredential(runtime::TextOf(record.match), certificate, {}, {}, {});
}

void ExpandLogonPlaceholders(std::string_view match, std::span<char> text) {
  if (runtime::FindChar(runtime::TextOf(text), '%') == std::string_view::npos) return;
  try {
    if (HoldsPlaceholder(runtime::TextOf(text))) ReplacePlaceholders(match, text);
  } catch (const std::bad_alloc&) {
    // What is not replaced by now stays as it is.
  }
  runtime::TraceWrite("Watch - Expanded: '%s'", runtime::MaskedText(text.data()).Text());
}

void ReplaceLogonPlaceholders(const LogonValues& values, std::span<char> text) {
  const LogonName name = SplitPrincipalName(runtime::TextOf(values.upn));
  runtime::ReplaceAllNoCase(text, kUpnPlaceholder, runtime::TextOf(values.upn));
  runtime::ReplaceAllNoCase(text, kUserNamePlaceholder, name.user);
  runtime::ReplaceAllNoCase(text, kDomainPlaceholder, name.domain);
  runtime::ReplaceAllNoCase(text, kSubjectPlaceholder, runtime::TextOf(values.subject));
  runtime::ReplaceAllNoCase(text, kSerialPlaceholder, runtime::TextOf(values.serial));
  for (const SubjectPlaceholder& placeholder :
       SubjectPlaceholders(runtime::TextOf(values.subject))) {
    runtime::ReplaceAllNoCase(text, placeholder.name, placeholder.value);
  }
}

void SetLogonQueries(const LogonQueries* queries) {
  logonQueries = queries == nullptr ? kPlatformQueries : *queries;
}

bool FindLogonUser(std::span<char> name) {
  return logonQueries.user(name) && !runtime::TextOf(name).empty();
}

bool FindLogonSlot(const char* user, std::span<const CK_SLOT_ID> slots, CK_SLOT_ID& slot,
                   std::span<std::uint8_t> certificate, std::size_t& certificateLength) {
  std::array<char, kSlotIdentitySize> identity{};
  if (!logonQueries.credential(user, identity, certificate, certificateLength)) return false;
  const auto found = std::find_if(slots.begin(), slots.end(), [&identity](CK_SLOT_ID candidate) {
    return HasIdentity(candidate, identity);
  });
  slot = found == slots.end() ? 0 : *found;
  return true;
}

}  // namespace qixx::watch
