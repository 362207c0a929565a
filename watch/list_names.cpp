#include "watch/list_names.h"

#include <algorithm>
#include <array>
#include <iterator>

#include "der/logon_values.h"

namespace qixx::watch {
namespace {

struct NamedFlag {
  CK_FLAGS flag;
  const char* name;
};
constexpr NamedFlag kTokenFlags[] = {
    {0x1, "rng"},
    {0x2, "write_protected"},
    {0x4, "login_required"},
    {0x8, "user_pin_initialized"},
    {0x20, "restore_key_not_needed"},
    {0x40, "clock_on_token"},
    {0x100, "protected_authentication_path"},
    {0x200, "dual_crypto_operations"},
    {0x400, "token_initialized"},
    {0x800, "secondary_authentication"},
    {0x10000, "user_pin_count_low"},
    {0x20000, "user_pin_final_try"},
    {0x40000, "user_pin_locked"},
    {0x80000, "user_pin_to_be_changed"},
    {0x100000, "so_pin_count_low"},
    {0x200000, "so_pin_final_try"},
    {0x400000, "so_pin_locked"},
    {0x800000, "so_pin_to_be_changed"},
    {0x1000000, "error_state"},
};

constexpr std::array<const char*, 9> kKeyUsages = {
    "digitalSignature", "nonRepudiation", "keyEncipherment", "dataEncipherment", "keyAgreement",
    "keyCertSign",      "cRLSign",        "encipherOnly",    "decipherOnly"};

struct NamedPurpose {
  std::string_view identifier;
  std::string_view name;
};
constexpr NamedPurpose kPurposes[] = {
    {der::kSmartCardLogon, "smart-card logon"}, {"1.3.6.1.5.2.3.4", "Kerberos client"},
    {"1.3.6.1.5.5.7.3.1", "TLS server"},        {"1.3.6.1.5.5.7.3.2", "TLS client"},
    {"1.3.6.1.5.5.7.3.3", "code signing"},      {"1.3.6.1.5.5.7.3.4", "e-mail protection"},
    {"1.3.6.1.5.5.7.3.8", "time stamping"},     {"2.5.29.37.0", "any"},
};

bool AreDigits(std::string_view text) {
  return std::ranges::all_of(text, [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace

std::string_view NameOf(FileRole role) {
  switch (role) {
    case FileRole::kSystem:
      return "system";
    case FileRole::kUser:
      return "user";
    case FileRole::kProgram:
      return "program";
  }
  return {};
}

std::string_view NameOf(FileReason reason) {
  switch (reason) {
    case FileReason::kEnvironment:
      return "environment";
    case FileReason::kHome:
      return "home";
    case FileReason::kPerUserInstall:
      return "per-user-installation";
    case FileReason::kDefault:
      return "default";
    case FileReason::kCurrentDirectory:
      return "current-directory";
    case FileReason::kBesideProgram:
      return "beside-program";
  }
  return {};
}

std::string_view NameOf(FileState state) {
  switch (state) {
    case FileState::kRead:
      return "read";
    case FileState::kEmpty:
      return "empty";
    case FileState::kMissing:
      return "missing";
    case FileState::kUnreadable:
      return "unreadable";
  }
  return {};
}

std::string_view NameOf(CommandSource source) {
  switch (source) {
    case CommandSource::kProgramFile:
      return "program-file";
    case CommandSource::kSystemFile:
      return "system-file";
    case CommandSource::kEnvironment:
      return "environment";
  }
  return {};
}

std::string_view NameOf(Counting counting) {
  switch (counting) {
    case Counting::kYes:
      return {};
    case Counting::kNoSlot:
      return "slot-zero";
    case Counting::kSecondary:
      return "secondary-slot";
    case Counting::kWithheld:
      return "withheld-by-library";
  }
  return {};
}

std::string_view NameOf(Verdict verdict) {
  switch (verdict) {
    case Verdict::kTaken:
      return "taken";
    case Verdict::kBehindTaken:
      return "behind-taken";
    case Verdict::kSuperseded:
      return "superseded";
    case Verdict::kNotMatching:
      return "not-matching";
    case Verdict::kNotForLogon:
      return "not-for-logon";
    case Verdict::kWithoutName:
      return "without-principal-name";
    case Verdict::kWithoutNames:
      return "without-any-name";
  }
  return {};
}

std::string_view NameOf(Omission reason) {
  switch (reason) {
    case Omission::kWithheld:
      return "withheld-by-library";
    case Omission::kUnreadable:
      return "unreadable";
    case Omission::kNoCertificate:
      return "no-certificate";
    case Omission::kSameAsAnother:
      return "same-as-another";
  }
  return {};
}

std::vector<std::string> TokenFlagNames(CK_FLAGS flags) {
  std::vector<std::string> names;
  for (const NamedFlag& named : kTokenFlags) {
    if ((flags & named.flag) != 0) names.emplace_back(named.name);
  }
  return names;
}

std::string KeyUsageName(unsigned bit) {
  return bit < kKeyUsages.size() ? kKeyUsages[bit] : "bit " + std::to_string(bit);
}

std::string_view PurposeName(std::string_view dotted) {
  const auto* const purpose = std::ranges::find(kPurposes, dotted, &NamedPurpose::identifier);
  return purpose == std::end(kPurposes) ? std::string_view() : purpose->name;
}

std::string VersionText(const CK_VERSION& version) {
  return std::to_string(version.major) + '.' + std::to_string(version.minor);
}

std::string TimeText(std::string_view encoded) {
  constexpr std::size_t kDigits = 14;
  std::string digits(encoded.substr(0, encoded.find_last_not_of('Z') + 1));
  if (digits.size() + 1 != encoded.size() || !AreDigits(digits)) return std::string(encoded);
  if (digits.size() == kDigits - 2) digits.insert(0, digits[0] < '5' ? "20" : "19");
  if (digits.size() != kDigits) return std::string(encoded);
  for (const auto& [at, separator] :
       {std::pair{12, ':'}, {10, ':'}, {8, 'T'}, {6, '-'}, {4, '-'}}) {
    digits.insert(static_cast<std::size_t>(at), 1, separator);
  }
  return digits + 'Z';
}

}  // namespace qixx::watch
