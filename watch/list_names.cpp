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

}  // namespace

Wording WordingOf(Verdict verdict) {
  switch (verdict) {
    case Verdict::kTaken:
      return {"taken", "TAKEN"};
    case Verdict::kBehindTaken:
      return {"behind-taken", "not taken: would do, but another one comes first"};
    case Verdict::kSuperseded:
      return {"superseded", "not taken: a like one is valid longer"};
    case Verdict::kNotMatching:
      return {"not-matching", "not taken: name or slot is not that of the match"};
    case Verdict::kNotForLogon:
      return {"not-for-logon", "not taken: not made for smart-card logon"};
    case Verdict::kWithoutName:
      return {"without-principal-name", "not taken: has no principal name"};
    case Verdict::kWithoutNames:
      return {"without-any-name", "not taken: has neither principal name nor e-mail address"};
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

std::vector<std::string> KeyUsageNames(const std::vector<unsigned>& bits) {
  std::vector<std::string> names;
  std::ranges::transform(bits, std::back_inserter(names), [](unsigned bit) {
    return bit < kKeyUsages.size() ? kKeyUsages[bit] : "bit " + std::to_string(bit);
  });
  return names;
}

std::string_view PurposeName(std::string_view dotted) {
  const auto* const purpose = std::ranges::find(kPurposes, dotted, &NamedPurpose::identifier);
  return purpose == std::end(kPurposes) ? std::string_view() : purpose->name;
}

}  // namespace qixx::watch
