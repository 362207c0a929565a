#include "pkcs11/certificate_entries.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "der/matching.h"

namespace qixx::pkcs11 {
namespace {

/// Anything shorter is no certificate.
constexpr std::size_t kMinCertificateBytes = 101;

bool Matches(const der::CDerCert& certificate, bool subjectByDefault,
             const std::optional<std::string>& filter) {
  return !filter || der::MatchNames(certificate, subjectByDefault, *filter);
}

bool HoldsValue(std::span<const CertificateEntry> entries, CK_SLOT_ID slot, der::Bytes value) {
  return std::any_of(entries.begin(), entries.end(), [slot, value](const CertificateEntry& entry) {
    return entry.slot == slot && std::ranges::equal(entry.value, value);
  });
}

}  // namespace

bool CertificateFilter::AsksForNothing() const {
  return keyUsageMask == kAnyKeyUsage && !issuer && !subject;
}

bool CertificateFilter::Passes(const der::CDerCert& certificate) const {
  const std::optional<std::uint8_t> keyUsage = der::GetKeyUsageBits(certificate);
  if (keyUsage && (*keyUsage & keyUsageMask) == 0) return false;
  return Matches(certificate, true, subject) && Matches(certificate, false, issuer);
}

bool ClearStaleEntries(std::span<CertificateEntry> entries, std::span<const CK_SLOT_ID> slots) {
  bool changed = false;
  for (CertificateEntry& entry : entries) {
    if (entry.IsFree()) continue;
    if (std::find(slots.begin(), slots.end(), entry.slot) != slots.end()) break;
    entry.Clear();
    changed = true;
  }
  return changed;
}

bool AddEntry(std::span<CertificateEntry> entries, const CertificateObject& object, CK_SLOT_ID slot,
              CK_SESSION_HANDLE session, const CertificateFilter& filter) {
  const der::Bytes value = object.Value();
  if (value.size() < kMinCertificateBytes) return false;
  der::CDerCert certificate;
  const bool parsed = certificate.SetData(value) == der::DerResult::kOk;
  const bool passes = parsed && filter.Passes(certificate);
  if (!passes && !filter.AsksForNothing()) return false;
  if (HoldsValue(entries, slot, value)) return false;
  const auto place = std::ranges::find_if(entries, &CertificateEntry::IsFree);
  if (place == entries.end()) return false;

  CertificateEntry entry;
  entry.slot = slot;
  entry.session = session;
  entry.object = object.Handle();
  entry.kind = static_cast<std::uint32_t>(CKC_X_509);
  entry.value.assign(value.begin(), value.end());
  const der::Bytes keyIdentifier = object.KeyIdentifier();
  entry.keyIdentifier.assign(keyIdentifier.begin(), keyIdentifier.end());
  entry.label = object.Label();
  entry.expired = parsed && certificate.IsExpired();
  if (passes) {
    der::Validity validity = certificate.GetValidity();
    entry.notBefore = std::move(validity.notBefore);
    entry.notAfter = std::move(validity.notAfter);
  }
  *place = std::move(entry);
  return true;
}

std::size_t OrderEntries(std::span<CertificateEntry> entries) {
  std::size_t count = entries.size();
  while (count != 0 && entries[count - 1].value.empty()) --count;
  const std::span<CertificateEntry> used = entries.first(count);
  std::stable_partition(used.begin(), used.end(),
                        [](const CertificateEntry& entry) { return !entry.expired; });
  return count;
}

}  // namespace qixx::pkcs11
