#include "pkcs11/certificate_entries.h"

#include <algorithm>
#include <array>
#include <utility>

#include "pkcs11/extended.h"
#include "pkcs11/wrapper.h"
#include "runtime/text.h"

namespace qixx::pkcs11 {
namespace {

/// More objects of a token are not looked at: a library may find the same one without end.
constexpr int kMaxObjectsPerSlot = 4096;

/// Anything shorter is no certificate.
constexpr std::size_t kMinCertificateBytes = 101;

bool Matches(const der::CDerCert& certificate, bool subjectByDefault,
             const std::optional<std::string>& filter) {
  return !filter || certificate.MatchNames(subjectByDefault, *filter);
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

SearchResult ForEachCertificate(const Session& session,
                                const std::function<void(CK_OBJECT_HANDLE)>& take) {
  CK_OBJECT_CLASS objectClass = CKO_CERTIFICATE;
  CK_CERTIFICATE_TYPE type = CKC_X_509;
  CK_BBOOL onToken = CK_TRUE;
  std::array<CK_ATTRIBUTE, 3> wanted = {{AttributeOf(CKA_CLASS, objectClass),
                                         AttributeOf(CKA_CERTIFICATE_TYPE, type),
                                         AttributeOf(CKA_TOKEN, onToken)}};
  ObjectSearch search(session, wanted);
  for (int tried = 0; tried < kMaxObjectsPerSlot; ++tried) {
    const FoundObject found = search.Next();
    // A search that failed is over, and its session soon too.
    if (found.result == SearchResult::kFailure) search.Abandon();
    if (found.result != SearchResult::kObject) return found.result;
    take(found.object);
  }
  return SearchResult::kObject;
}

std::optional<CertificateEntry> ReadCertificate(const Session& session, CK_SLOT_ID slot,
                                                CK_OBJECT_HANDLE object) {
  std::array<CK_BYTE, kMaxCertificateBytes> value{};
  std::array<char, kMaxLabel> label{};
  std::array<CK_BYTE, der::kMaxKeyIdentifier> keyIdentifier{};
  CK_BBOOL modifiable = CK_FALSE;       // read and not interpreted
  std::array<CK_BYTE, 8> suiteValue{};  // likewise
  const std::array<CK_ATTRIBUTE, 5> asked = {{
      AttributeOf(CKA_VALUE, value),
      AttributeOf(CKA_LABEL, label),
      AttributeOf(CKA_ID, keyIdentifier),
      AttributeOf(CKA_MODIFIABLE, modifiable),
      AttributeOf(kSuiteAttribute, suiteValue),
  }};
  std::array<CK_ATTRIBUTE, 5> read = asked;
  // The suite's own attribute is there on the slots of card readers only.
  const std::size_t count = slot <= kLastReaderSlot ? 5 : 4;
  if (Pkcs11().GetAttributeValue(session.Handle(), object, read.data(), count) != CKR_OK) {
    return std::nullopt;
  }
  for (std::size_t i = 0; i < count; ++i) {
    const CK_ULONG length = read[i].ulValueLen;
    // A certificate without the attribute that only the suite's own cards have is a certificate.
    if (read[i].type == kSuiteAttribute && length == CK_UNAVAILABLE_INFORMATION) continue;
    if (length > asked[i].ulValueLen) return std::nullopt;
  }
  CertificateEntry entry;
  entry.slot = slot;
  entry.session = session.Handle();
  entry.object = object;
  entry.kind = static_cast<std::uint32_t>(CKC_X_509);
  entry.value.assign(value.data(), value.data() + read[0].ulValueLen);
  entry.label = runtime::TextOf(std::span(label).first(read[1].ulValueLen));
  entry.keyIdentifier.assign(keyIdentifier.data(), keyIdentifier.data() + read[2].ulValueLen);
  return entry;
}

bool ClearStaleEntries(std::span<CertificateEntry> entries, std::span<const CK_SLOT_ID> slots) {
  bool changed = false;
  for (CertificateEntry& entry : entries) {
    if (entry.IsFree()) continue;
    if (std::ranges::find(slots, entry.slot) != slots.end()) break;
    entry.Clear();
    changed = true;
  }
  return changed;
}

bool AddEntry(std::span<CertificateEntry> entries, CertificateEntry read,
              const CertificateFilter& filter) {
  if (read.value.size() < kMinCertificateBytes) return false;
  der::CDerCert certificate;
  const bool parsed = certificate.SetData(read.value) == der::DerResult::kOk;
  const bool passes = parsed && filter.Passes(certificate);
  if (!passes && !filter.AsksForNothing()) return false;
  const auto holdsIt = [&read](const CertificateEntry& entry) {
    return entry.slot == read.slot && entry.value == read.value;
  };
  if (std::ranges::any_of(entries, holdsIt)) return false;
  const auto place = std::ranges::find_if(entries, &CertificateEntry::IsFree);
  if (place == entries.end()) return false;

  read.expired = parsed && certificate.IsExpired();
  if (passes) {
    der::Validity validity = certificate.GetValidity();
    read.notBefore = std::move(validity.notBefore);
    read.notAfter = std::move(validity.notAfter);
  }
  *place = std::move(read);
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
