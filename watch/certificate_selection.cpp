#include "watch/certificate_selection.h"

#include <cstdio>
#include <utility>

#include "pkcs11/reader.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "watch/options.h"

namespace qixx::watch {
namespace {

/// As the slot of a match: every slot.
constexpr std::uint8_t kEverySlot = 255;
constexpr std::size_t kMaxMatchValue = 2;

/// Keeps a copy of a certificate beside the trace.
void DumpCertificate(SelectionPass pass, std::size_t index, const der::CertificateHolder& holder) {
  if (!runtime::TraceIsOn()) return;
  char name[32];
  std::snprintf(name, sizeof name, "cert%d%d.cer", static_cast<int>(pass), static_cast<int>(index));
  runtime::TraceDump(name, holder.certificate.GetData());
}

SelectionPass LastPass(const CredentialMatch& match) {
  return match.value.empty() ? SelectionPass::kAny : SelectionPass::kForLogon;
}

/// Without a value every certificate will do: the name alone has been asked for before the event's
/// commands.
bool Accepts(const CredentialMatch& match, const der::CertificateHolder& holder) {
  if (match.value.empty()) return true;
  const std::optional<CK_SLOT_ID> slot = match.Slot();
  if (slot && pkcs11::CHelperPkcs11::NormalizeSlotId(*slot) != holder.slot) return false;
  return holder.certificate.MatchNames(true, match.name);
}

struct Trial {
  Verdict verdict = Verdict::kTaken;
  der::CertificateLogonValues values = {};  ///< of one that can be taken
};
/// What a pass makes of one certificate alone.
Trial TryCertificate(const der::CertificateHolder& holder, const CredentialMatch& match,
                     SelectionPass pass) {
  if (holder.superseded) return {Verdict::kSuperseded};
  if (!Accepts(match, holder)) return {Verdict::kNotMatching};
  const bool forLogon = pass == SelectionPass::kForLogon;
  Trial trial = {Verdict::kTaken, der::GetLogonValues(holder, forLogon, !forLogon)};
  if (!trial.values.upn.empty()) return trial;
  if (!forLogon) return {Verdict::kWithoutNames};
  return {der::HasExtendedKeyUsage(holder.certificate, der::kSmartCardLogon)
              ? Verdict::kWithoutName
              : Verdict::kNotForLogon};
}

}  // namespace

std::optional<CK_SLOT_ID> CredentialMatch::Slot() const {
  if (value.empty() || value.front() == kEverySlot) return std::nullopt;
  return value.front();
}

std::optional<CredentialMatch> ParseMatchText(std::string_view match) {
  const std::size_t bar = match.rfind('|');
  const std::string_view name = match.substr(0, bar);
  const std::string_view digits =
      bar == std::string_view::npos ? std::string_view{} : match.substr(bar + 1);
  if (name.size() > kMaxOption || digits.size() >= 2 * kMaxMatchValue) return std::nullopt;
  return CredentialMatch{std::string(name), runtime::HexDecode(digits)};
}

CredentialMatch SelectionMatch(std::string_view match) {
  return ParseMatchText(match).value_or(CredentialMatch{});
}

std::optional<Selection> SelectCertificate(std::span<const der::CertificatePtr> certificates,
                                           const CredentialMatch& match) {
  for (const SelectionPass pass : {SelectionPass::kForLogon, SelectionPass::kAny}) {
    if (pass > LastPass(match)) break;
    for (std::size_t index = 0; index < certificates.size(); ++index) {
      const der::CertificateHolder& holder = *certificates[index];
      DumpCertificate(pass, index, holder);
      Trial trial = TryCertificate(holder, match, pass);
      if (trial.verdict == Verdict::kTaken) return Selection{index, pass, std::move(trial.values)};
    }
  }
  return std::nullopt;
}

std::vector<Verdict> JudgeCertificates(std::span<const der::CertificatePtr> certificates,
                                       const CredentialMatch& match,
                                       const std::optional<Selection>& selection) {
  const SelectionPass deciding = selection ? selection->pass : LastPass(match);
  std::vector<Verdict> verdicts;
  for (std::size_t index = 0; index < certificates.size(); ++index) {
    const Verdict verdict = TryCertificate(*certificates[index], match, deciding).verdict;
    const bool isLate = verdict == Verdict::kTaken && selection && index != selection->index;
    verdicts.push_back(isLate ? Verdict::kBehindTaken : verdict);
  }
  return verdicts;
}

}  // namespace qixx::watch
