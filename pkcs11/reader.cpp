#include "pkcs11/reader.h"

#include <algorithm>
#include <array>
#include <utility>

#include "der/matching.h"
#include "pkcs11/extended.h"
#include "pkcs11/token_variables.h"
#include "pkcs11/wrapper.h"
#include "runtime/trace.h"

namespace qixx::pkcs11 {
namespace {

/// Adds what the token holds. True when anything was added.
bool ReadSlot(CK_SLOT_ID slot, const CertificateFilter& filter,
              std::span<CertificateEntry> entries) {
  const std::optional<Session> session = Session::Open(slot);
  if (!session) return false;
  bool changed = false;
  ForEachCertificate(*session, [&](CK_OBJECT_HANDLE object) {
    std::optional<CertificateEntry> read = ReadCertificate(*session, slot, object);
    if (read && AddEntry(entries, std::move(*read), filter)) changed = true;
  });
  return changed;
}

/// The stored text of the token's variables; nothing when the library does not give it, or claims
/// more than 1 MiB.
std::optional<std::vector<CK_BYTE>> ReadVariables(CK_SLOT_ID slot, bool isPrivate) {
  if (slot == 0) return std::nullopt;
  VariableTemplate wanted(isPrivate);
  const std::optional<SessionObject> found = FindObjectOnSlot(slot, wanted.ToFind());
  if (!found) return std::nullopt;
  CK_ATTRIBUTE attribute = {CKA_VALUE, nullptr, 0};
  const auto read = [&found, &attribute] {
    return Pkcs11().GetAttributeValue(found->session.Handle(), found->object, &attribute, 1);
  };
  if (read() != CKR_OK || attribute.ulValueLen > kMaxStoredBytes) return std::nullopt;
  std::vector<CK_BYTE> stored(attribute.ulValueLen);
  attribute.pValue = stored.data();
  if (read() != CKR_OK || attribute.ulValueLen > stored.size()) return std::nullopt;
  stored.resize(attribute.ulValueLen);
  return stored;
}

}  // namespace

// --- slots -------------------------------------------------------------------------------------

CK_SLOT_ID CHelperPkcs11::FindWatchSlot(bool readersOnly) {
  CK_SLOT_ID virtualSlot = 0;
  for (const CK_SLOT_ID slot : ListTokenSlots()) {
    if (readersOnly && slot > kLastReaderSlot) continue;
    CK_SLOT_INFO info = {};
    if (Pkcs11().GetSlotInfo(slot, &info) != CKR_OK) continue;
    if (!IsVirtualSlot(info.slotDescription, info.flags)) return slot;
    if (!readersOnly) virtualSlot = slot;
  }
  return virtualSlot;
}

CK_SLOT_ID CHelperPkcs11::NormalizeSlotId(CK_SLOT_ID slot) {
  if (slot == 0 || slot > kLastGroupedSlot) return slot;
  return (slot - 1) / kSlotGroupSize * kSlotGroupSize + 1;
}

// --- one certificate ---------------------------------------------------------------------------

std::optional<SessionObject> CHelperPkcs11::FindCertificateOnSlot(der::Bytes value,
                                                                  CK_SLOT_ID slot) {
  CK_OBJECT_CLASS objectClass = CKO_CERTIFICATE;
  CK_BBOOL onToken = CK_TRUE;
  std::array<CK_ATTRIBUTE, 3> wanted = {{AttributeOf(CKA_CLASS, objectClass),
                                         AttributeOf(CKA_VALUE, value.data(), value.size()),
                                         AttributeOf(CKA_TOKEN, onToken)}};
  return FindObjectOnSlot(slot, wanted);
}

std::optional<SessionObject> CHelperPkcs11::FindCertificateOnAnySlot(
    der::Bytes value, std::optional<CK_SLOT_ID> preferredSlot) {
  std::vector<CK_SLOT_ID> slots = ListTokenSlots();
  const auto preferred = std::ranges::find(slots, preferredSlot);
  if (preferred != slots.end()) std::iter_swap(slots.begin(), preferred);
  for (const CK_SLOT_ID slot : slots) {
    if (auto found = FindCertificateOnSlot(value, slot)) return found;
  }
  return std::nullopt;
}

bool CHelperPkcs11::IsCertificatePresent(CK_SLOT_ID slot, der::Bytes value) {
  if (Pkcs11().InitializeCount() == 0) Pkcs11().Initialize(nullptr);
  return slot != 0 ? FindCertificateOnSlot(value, slot).has_value()
                   : FindCertificateOnAnySlot(value).has_value();
}

// --- token variables ---------------------------------------------------------------------------

std::optional<std::string> CHelperPkcs11::GetTokenVariable(CK_SLOT_ID slot, bool isPrivate,
                                                           std::string_view name,
                                                           std::size_t maxLength) {
  const std::optional<std::vector<CK_BYTE>> stored = ReadVariables(slot, isPrivate);
  if (!stored) return std::nullopt;
  const auto value = FindTokenVariable(*stored, name);
  if (!value || value->size() > maxLength) return std::nullopt;
  return std::string(*value);
}

// --- all certificates --------------------------------------------------------------------------

bool CHelperPkcs11::GetCertificates(std::optional<CK_SLOT_ID> slotFilter,
                                    const CertificateFilter& filter,
                                    std::span<CertificateEntry> entries) {
  runtime::TraceWrite("HelperPkcs11 - Get certificates: 0x%.2X '%s' '%s'", filter.keyUsageMask,
                      filter.issuer ? filter.issuer->c_str() : nullptr,
                      filter.subject ? filter.subject->c_str() : nullptr);
  const std::vector<CK_SLOT_ID> slots = ListTokenSlots();
  if (slots.empty()) return false;

  bool changed = ClearStaleEntries(entries, slots);
  for (const CK_SLOT_ID slot : slots) {
    // A slot of this number could not be told from a free entry.
    if (slot == kFreeSlot) continue;
    if (slotFilter && NormalizeSlotId(slot) != NormalizeSlotId(*slotFilter)) continue;
    if (ReadSlot(slot, filter, entries)) changed = true;
  }
  OrderEntries(entries);
  return changed;
}

std::vector<der::CertificatePtr> CHelperPkcs11::CollectCertificates(const CertificateFilter& filter,
                                                                    bool markDuplicates,
                                                                    std::size_t maxCertificates) {
  std::vector<der::CertificatePtr> list;
  std::vector<CertificateEntry> entries(maxCertificates);
  if (!GetCertificates(std::nullopt, filter, entries)) return list;
  for (CertificateEntry& entry : entries) {
    AddCertificate(list, entry, markDuplicates, maxCertificates);
    entry.Clear();
  }
  return list;
}

bool CHelperPkcs11::AddCertificate(std::vector<der::CertificatePtr>& list,
                                   const CertificateEntry& entry, bool markDuplicates,
                                   std::size_t maxCertificates) {
  if (entry.value.empty() || list.size() >= maxCertificates) return false;
  der::CertificatePtr added = der::LoadCertificate(entry.value);
  if (added == nullptr) return false;
  added->slot = NormalizeSlotId(entry.slot);
  added->rawSlot = entry.slot;

  for (const der::CertificatePtr& known : list) {
    if (known->certificate.IsSame(added->certificate)) {
      if (known->slot == 0) {
        known->slot = added->slot;
        known->rawSlot = added->rawSlot;
      }
      return false;
    }
    if (markDuplicates && der::AreDuplicates(*known, *added)) {
      (der::RanksHigher(*added, *known) ? *known : *added).superseded = true;
    }
  }
  added->SetKeyIdentifier(entry.keyIdentifier);
  list.push_back(std::move(added));
  return true;
}

}  // namespace qixx::pkcs11
