#include "watch/certificate_selection.h"

#include <cstdio>

#include "der/matching.h"
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
void DumpCertificate(int pass, std::size_t index, const der::CertificateHolder& holder) {
  if (!runtime::TraceIsOn()) return;
  char name[32];
  std::snprintf(name, sizeof name, "cert%d%d.cer", pass, static_cast<int>(index));
  runtime::TraceDump(name, holder.certificate.GetData());
}

}  // namespace

std::optional<CK_SLOT_ID> CredentialMatch::Slot() const {
  if (value.empty() || value.front() == kEverySlot) return std::nullopt;
  return value.front();
}

bool CredentialMatch::Accepts(const der::CertificateHolder& holder) const {
  if (value.empty()) return true;
  const std::optional<CK_SLOT_ID> slot = Slot();
  if (slot && pkcs11::CHelperPkcs11::NormalizeSlotId(*slot) != holder.slot) return false;
  return der::MatchNames(holder.certificate, true, name);
}

std::optional<CredentialMatch> ParseMatchText(std::string_view match) {
  const std::size_t bar = runtime::FindCharBack(match, '|');
  const std::string_view name = match.substr(0, bar);
  const std::string_view digits =
      bar == std::string_view::npos ? std::string_view{} : match.substr(bar + 1);
  if (name.size() > kMaxOption || digits.size() >= 2 * kMaxMatchValue) return std::nullopt;
  return CredentialMatch{std::string(name), runtime::HexDecode(digits)};
}

std::optional<der::CertificateLogonValues> SelectLogonValues(
    std::span<const der::CertificatePtr> certificates, const CredentialMatch& match) {
  const int passes = match.value.empty() ? 2 : 1;
  for (int pass = 0; pass < passes; ++pass) {
    const bool forLogon = pass == 0;
    for (std::size_t index = 0; index < certificates.size(); ++index) {
      const der::CertificateHolder& holder = *certificates[index];
      DumpCertificate(pass, index, holder);
      if (holder.superseded || !match.Accepts(holder)) continue;
      der::CertificateLogonValues values = der::GetLogonValues(holder, forLogon, !forLogon);
      if (!values.upn.empty()) return values;
    }
  }
  return std::nullopt;
}

}  // namespace qixx::watch
