#include "pkcs11/reader.h"

#include <algorithm>
#include <array>
#include <new>
#include <utility>

#include "pkcs11/extended.h"
#include "pkcs11/wrapper.h"
#include "runtime/files.h"
#include "runtime/text.h"
#include "runtime/trace.h"

namespace qixx::pkcs11 {

namespace {

constexpr std::string_view kVirtualDescription = "Virtual Slot";
/// Card readers have slots up to here; the suite's own lie above.
constexpr CK_SLOT_ID kLastReaderSlot = 99;
constexpr CK_SLOT_ID kLastGroupedSlot = 96;
constexpr CK_SLOT_ID kGroupSize = 3;

// What a library may make us allocate or read, whatever it says.
constexpr CK_ULONG kMaxSlots = 4096;
/// For cards that are put in between asking for the number of slots and asking for them.
constexpr CK_ULONG kSpareSlots = 16;
constexpr int kMaxObjectsPerSlot = 4096;
constexpr CK_ULONG kMaxVariableBytes = 1 << 20;

constexpr std::size_t kMaxApplicationName = 31;
constexpr std::size_t kMaxCertificateBytes = 16384;
/// Anything shorter is no certificate.
constexpr std::size_t kMinCertificateBytes = 101;
constexpr std::size_t kMaxLabel = 255;
constexpr std::size_t kValiditySize = 32;

// --- PKCS#11 with owners -----------------------------------------------------------------------

/// The slots that hold a token, none when the library does not tell.
class TokenSlots {
 public:
  TokenSlots() {
    CK_ULONG count = 0;
    if (Pkcs11().GetSlotList(CK_TRUE, nullptr, &count) != CKR_OK || count == 0) return;
    const CK_ULONG places = std::min(count, kMaxSlots - kSpareSlots) + kSpareSlots;
    slots_.reset(new (std::nothrow) CK_SLOT_ID[places]());
    if (slots_ == nullptr) return;
    count = places;
    if (Pkcs11().GetSlotList(CK_TRUE, slots_.get(), &count) != CKR_OK) return;
    count_ = std::min(count, places);
  }

  [[nodiscard]] std::span<CK_SLOT_ID> List() { return {slots_.get(), count_}; }

 private:
  std::unique_ptr<CK_SLOT_ID[]> slots_;
  std::size_t count_ = 0;
};

/// A session, closed at the end of the scope unless it is handed out.
class Session {
 public:
  explicit Session(CK_SLOT_ID slot)
      : open_(Pkcs11().OpenSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr,
                                   &handle_) == CKR_OK) {}
  ~Session() {
    if (open_) Pkcs11().CloseSession(handle_);
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  [[nodiscard]] bool IsOpen() const { return open_; }
  [[nodiscard]] CK_SESSION_HANDLE Handle() const { return handle_; }
  CK_SESSION_HANDLE HandOut() {
    open_ = false;
    return handle_;
  }

 private:
  CK_SESSION_HANDLE handle_ = CK_INVALID_HANDLE;
  bool open_;
};

enum class Found { kObject, kNothing, kFailure };

/// A search for objects, ended with the scope. A search that could not be started has failed.
class ObjectSearch {
 public:
  ObjectSearch(CK_SESSION_HANDLE session, std::span<CK_ATTRIBUTE> attributes)
      : session_(session),
        active_(Pkcs11().FindObjectsInit(session, attributes.data(), attributes.size()) == CKR_OK) {
  }
  ~ObjectSearch() {
    if (active_) Pkcs11().FindObjectsFinal(session_);
  }
  ObjectSearch(const ObjectSearch&) = delete;
  ObjectSearch& operator=(const ObjectSearch&) = delete;

  Found Next(CK_OBJECT_HANDLE& object) {
    if (!active_) return Found::kFailure;
    CK_ULONG count = 0;
    if (Pkcs11().FindObjects(session_, &object, 1, &count) != CKR_OK) return Found::kFailure;
    return count == 1 ? Found::kObject : Found::kNothing;
  }
  /// Leaves a search as it is.
  void Abandon() { active_ = false; }

 private:
  CK_SESSION_HANDLE session_;
  bool active_;
};

Found FindOne(CK_SESSION_HANDLE session, std::span<CK_ATTRIBUTE> attributes,
              CK_OBJECT_HANDLE& object) {
  ObjectSearch search(session, attributes);
  return search.Next(object);
}

template <typename Value>
CK_ATTRIBUTE Attribute(CK_ATTRIBUTE_TYPE type, Value& value) {
  return {type, &value, sizeof(value)};
}

/// An attribute that is only read.
CK_ATTRIBUTE Attribute(CK_ATTRIBUTE_TYPE type, const void* bytes, std::size_t length) {
  return {type, const_cast<void*>(bytes), length};
}

// --- token variables ---------------------------------------------------------------------------

/// The whole value of an object, false when it has none or it is beyond all measure.
bool ReadValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
               std::unique_ptr<CK_BYTE[]>& value, std::size_t& length) {
  CK_ATTRIBUTE attribute = {CKA_VALUE, nullptr, 0};
  if (Pkcs11().GetAttributeValue(session, object, &attribute, 1) != CKR_OK) return false;
  const CK_ULONG size = attribute.ulValueLen;
  if (size > kMaxVariableBytes) return false;
  value.reset(new (std::nothrow) CK_BYTE[size]());
  if (value == nullptr) return false;
  attribute = {CKA_VALUE, value.get(), size};
  if (Pkcs11().GetAttributeValue(session, object, &attribute, 1) != CKR_OK) return false;
  length = attribute.ulValueLen;
  return length <= size;
}

/// Takes a text and its terminator off the front; without terminator it is all that is left.
std::string_view TakePaddedText(std::string_view& rest) {
  const std::size_t end = std::min(rest.find('\0'), rest.size());
  const std::string_view text = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return runtime::Utf8ToLocal(runtime::DropTrailingBlanks(text));
}

// --- certificate objects -----------------------------------------------------------------------

/// The areas into which an object is read.
struct CertificateObject {
  CK_OBJECT_HANDLE handle = CK_INVALID_HANDLE;
  std::array<CK_BYTE, kMaxCertificateBytes> valueArea{};
  std::size_t valueLength = 0;
  std::array<char, kMaxLabel + 1> label{};  ///< terminated
  std::array<CK_BYTE, der::kMaxKeyIdentifier> keyIdentifierArea{};
  std::size_t keyIdentifierLength = 0;
  CK_BBOOL modifiable = CK_FALSE;
  std::array<CK_BYTE, 8> suiteValue{};  ///< read and not interpreted

  [[nodiscard]] der::Bytes Value() const { return std::span(valueArea).first(valueLength); }
  [[nodiscard]] der::Bytes KeyIdentifier() const {
    return std::span(keyIdentifierArea).first(keyIdentifierLength);
  }
};

/// The X.509 certificates of a session, one after the other.
class CertificateReading {
 public:
  /// The suite's own attribute is there on the slots of card readers only.
  CertificateReading(CK_SESSION_HANDLE session, bool withSuiteValue)
      : session_(session), withSuiteValue_(withSuiteValue), search_(session, template_) {}

  /// False at the end. An object that cannot be read in full is passed over, as intended.
  bool Next(CertificateObject& object) {
    while (tried_ < kMaxObjectsPerSlot) {
      ++tried_;
      const Found found = search_.Next(object.handle);
      if (found == Found::kFailure) search_.Abandon();  // it is over, and the session soon too
      if (found != Found::kObject) return false;
      if (Read(object)) return true;
    }
    return false;
  }

 private:
  bool Read(CertificateObject& object) const {
    std::array<CK_ATTRIBUTE, 5> attributes = {{
        Attribute(CKA_VALUE, object.valueArea),
        {CKA_LABEL, object.label.data(), kMaxLabel},
        Attribute(CKA_ID, object.keyIdentifierArea),
        Attribute(CKA_MODIFIABLE, object.modifiable),
        Attribute(kSuiteAttribute, object.suiteValue),
    }};
    const std::size_t count = withSuiteValue_ ? 5 : 4;
    const std::array<CK_ATTRIBUTE, 5> asked = attributes;
    if (Pkcs11().GetAttributeValue(session_, object.handle, attributes.data(), count) != CKR_OK) {
      return false;
    }
    for (std::size_t i = 0; i < count; ++i) {
      if (attributes[i].ulValueLen > asked[i].ulValueLen) return false;
    }
    object.valueLength = attributes[0].ulValueLen;
    object.label[attributes[1].ulValueLen] = '\0';
    object.keyIdentifierLength = attributes[2].ulValueLen;
    return true;
  }

  CK_SESSION_HANDLE session_;
  bool withSuiteValue_;
  int tried_ = 0;
  CK_OBJECT_CLASS class_ = CKO_CERTIFICATE;
  CK_CERTIFICATE_TYPE type_ = CKC_X_509;
  CK_BBOOL onToken_ = CK_TRUE;
  std::array<CK_ATTRIBUTE, 3> template_ = {{Attribute(CKA_CLASS, class_),
                                            Attribute(CKA_CERTIFICATE_TYPE, type_),
                                            Attribute(CKA_TOKEN, onToken_)}};
  ObjectSearch search_;
};

// --- certificate entries -----------------------------------------------------------------------

/// What a collection asks of a certificate.
struct CertificateFilter {
  std::uint8_t keyUsageMask;
  const char* first;   ///< for the issuer, null for none
  const char* second;  ///< for the subject, null for none

  [[nodiscard]] bool AsksForNothing() const {
    return keyUsageMask == kAnyKeyUsage && first == nullptr && second == nullptr;
  }
  [[nodiscard]] bool Passes(const der::CDerCert& certificate) const {
    std::uint8_t keyUsage = 0;
    if (der::GetKeyUsageBits(certificate, keyUsage) && (keyUsage & keyUsageMask) == 0) return false;
    return der::MatchNames(certificate, true, runtime::LocalToUtf8(runtime::ViewOf(second))) &&
           der::MatchNames(certificate, false, runtime::LocalToUtf8(runtime::ViewOf(first)));
  }
};

/// Null for no bytes, and when memory runs out.
std::unique_ptr<CK_BYTE[]> CopyOf(der::Bytes bytes) {
  if (bytes.empty()) return nullptr;
  std::unique_ptr<CK_BYTE[]> copy(new (std::nothrow) CK_BYTE[bytes.size()]);
  if (copy != nullptr) std::copy(bytes.begin(), bytes.end(), copy.get());
  return copy;
}

bool HoldsValue(std::span<const CertificateEntry> entries, CK_SLOT_ID slot, der::Bytes value) {
  return std::any_of(entries.begin(), entries.end(), [slot, value](const CertificateEntry& entry) {
    return entry.slot == slot && std::ranges::equal(entry.Value(), value);
  });
}

/// Frees the entries of slots that have gone. Intended: the walk stops at the first entry that is
/// still there, so that stale ones behind it survive one more collection.
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

/// One collection into a list of entries.
class Collection {
 public:
  Collection(const CertificateFilter& filter, std::span<CertificateEntry> entries)
      : filter_(filter), entries_(entries) {}

  /// Adds what the token holds. True when anything was added.
  bool ReadSlot(CK_SLOT_ID slot) {
    const Session session(slot);
    if (!session.IsOpen()) return false;
    CertificateReading reading(session.Handle(), slot <= kLastReaderSlot);
    bool changed = false;
    while (reading.Next(object_)) {
      if (AddObject(slot, session.Handle())) changed = true;
    }
    return changed;
  }

 private:
  bool AddObject(CK_SLOT_ID slot, CK_SESSION_HANDLE session) {
    if (object_.valueLength < kMinCertificateBytes) return false;
    der::CDerCert certificate;
    char notBefore[kValiditySize] = {};
    char notAfter[kValiditySize] = {};
    const bool parsed = certificate.SetData(object_.Value()) == der::kDerOk;
    if (parsed && filter_.Passes(certificate)) {
      certificate.CopyValidity(notBefore, notAfter);
    } else if (!filter_.AsksForNothing()) {
      return false;
    }
    if (HoldsValue(entries_, slot, object_.Value())) return false;
    const auto place = std::find_if(entries_.begin(), entries_.end(),
                                    [](const CertificateEntry& entry) { return entry.IsFree(); });
    if (place == entries_.end() || !Fill(*place)) return false;
    place->slot = slot;
    place->session = session;
    place->expired = parsed && certificate.IsExpired();
    // What does not fit stays empty.
    (void)runtime::CopyTextIfFits(place->notBefore, notBefore);
    (void)runtime::CopyTextIfFits(place->notAfter, notAfter);
    return true;
  }

  /// False when memory runs out; the entry is still free then.
  bool Fill(CertificateEntry& entry) const {
    entry.Clear();
    std::unique_ptr<CK_BYTE[]> value = CopyOf(object_.Value());
    if (value == nullptr) return false;
    entry.value = std::move(value);
    entry.valueLength = object_.valueLength;
    entry.keyIdentifier = CopyOf(object_.KeyIdentifier());
    if (entry.keyIdentifier != nullptr) entry.keyIdentifierLength = object_.keyIdentifierLength;
    char* label = nullptr;
    runtime::Duplicate(object_.label.data(), label);
    entry.label.reset(label);
    entry.object = object_.handle;
    entry.kind = static_cast<std::uint32_t>(CKC_X_509);
    return true;
  }

  CertificateFilter filter_;
  std::span<CertificateEntry> entries_;
  CertificateObject object_;
};

}  // namespace

// --- slots -------------------------------------------------------------------------------------

bool CHelperPkcs11::IsVirtualSlot(std::span<const CK_UTF8CHAR> description, CK_FLAGS flags) {
  if (static_cast<std::int32_t>(flags) < 0) return true;
  if ((flags & CKF_HW_SLOT) != 0) return false;
  return description.size() >= kVirtualDescription.size() &&
         std::equal(kVirtualDescription.begin(), kVirtualDescription.end(), description.begin());
}

CK_SLOT_ID CHelperPkcs11::FindWatchSlot(bool readersOnly) {
  CK_SLOT_ID virtualSlot = 0;
  TokenSlots slots;
  for (const CK_SLOT_ID slot : slots.List()) {
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
  return (slot - 1) / kGroupSize * kGroupSize + 1;
}

// --- one certificate ---------------------------------------------------------------------------

bool CHelperPkcs11::FindCertificateOnSlot(der::Bytes value, CK_SLOT_ID slot,
                                          CK_SESSION_HANDLE* session, CK_OBJECT_HANDLE* object) {
  Session opened(slot);
  if (!opened.IsOpen()) return false;
  CK_OBJECT_CLASS objectClass = CKO_CERTIFICATE;
  CK_BBOOL onToken = CK_TRUE;
  std::array<CK_ATTRIBUTE, 3> attributes = {{Attribute(CKA_CLASS, objectClass),
                                             Attribute(CKA_VALUE, value.data(), value.size()),
                                             Attribute(CKA_TOKEN, onToken)}};
  CK_OBJECT_HANDLE found = CK_INVALID_HANDLE;
  if (FindOne(opened.Handle(), attributes, found) != Found::kObject) return false;
  if (object != nullptr) *object = found;
  if (session != nullptr) *session = opened.HandOut();
  return true;
}

bool CHelperPkcs11::FindCertificateOnAnySlot(der::Bytes value, CK_SLOT_ID* preferredSlot,
                                             CK_SESSION_HANDLE* session, CK_OBJECT_HANDLE* object) {
  TokenSlots tokenSlots;
  const std::span<CK_SLOT_ID> slots = tokenSlots.List();
  if (preferredSlot != nullptr) {
    const auto preferred = std::find(slots.begin(), slots.end(), *preferredSlot);
    if (preferred != slots.end()) std::iter_swap(slots.begin(), preferred);
  }
  for (const CK_SLOT_ID slot : slots) {
    if (!FindCertificateOnSlot(value, slot, session, object)) continue;
    if (preferredSlot != nullptr) *preferredSlot = slot;
    return true;
  }
  return false;
}

bool CHelperPkcs11::IsCertificatePresent(CK_SLOT_ID slot, der::Bytes value) {
  if (Pkcs11().InitializeCount() == 0) Pkcs11().Initialize(nullptr);
  if (slot != 0) return FindCertificateOnSlot(value, slot, nullptr, nullptr);
  return FindCertificateOnAnySlot(value, nullptr, nullptr, nullptr);
}

// --- token variables ---------------------------------------------------------------------------

bool CHelperPkcs11::FindVariableObject(CK_SLOT_ID slot, bool isPrivate, bool create,
                                       CK_SESSION_HANDLE& session, CK_OBJECT_HANDLE& object) {
  if (slot == 0) return false;
  const std::string_view application =
      runtime::LocalToUtf8(runtime::ViewOf(runtime::Product().name).substr(0, kMaxApplicationName));
  CK_OBJECT_CLASS objectClass = CKO_DATA;
  CK_BBOOL onToken = CK_TRUE;
  CK_BBOOL privacy = isPrivate ? CK_TRUE : CK_FALSE;
  CK_BYTE emptyStore = 0;
  std::array<CK_ATTRIBUTE, 6> attributes = {
      {Attribute(CKA_CLASS, objectClass), Attribute(CKA_TOKEN, onToken),
       Attribute(CKA_PRIVATE, privacy),
       Attribute(CKA_APPLICATION, application.data(), application.size()),
       Attribute(CKA_LABEL, "", 0), Attribute(CKA_VALUE, emptyStore)}};
  const std::span<CK_ATTRIBUTE> wanted = std::span(attributes).first(5);

  Session opened(slot);
  if (!opened.IsOpen()) return false;
  CK_OBJECT_HANDLE handle = CK_INVALID_HANDLE;
  const Found found = FindOne(opened.Handle(), wanted, handle);
  if (found == Found::kFailure || (found == Found::kNothing && !create)) return false;
  if (found == Found::kNothing && Pkcs11().CreateObject(opened.Handle(), attributes.data(),
                                                        attributes.size(), &handle) != CKR_OK) {
    return false;
  }
  object = handle;
  session = opened.HandOut();
  return true;
}

bool CHelperPkcs11::GetTokenVariable(CK_SLOT_ID slot, bool isPrivate, std::string_view name,
                                     std::span<char> output) {
  CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
  CK_OBJECT_HANDLE object = CK_INVALID_HANDLE;
  if (!FindVariableObject(slot, isPrivate, false, session, object)) return false;
  std::unique_ptr<CK_BYTE[]> store;
  std::size_t length = 0;
  const bool read = ReadValue(session, object, store, length);
  Pkcs11().CloseSession(session);
  return read && FindVariable({store.get(), length}, name, output);
}

bool CHelperPkcs11::FindVariable(der::Bytes store, std::string_view name, std::span<char> output) {
  if (store.size() <= 2 || store[0] != 0) return false;
  std::string_view rest(reinterpret_cast<const char*>(store.data()) + 1, store.size() - 1);
  while (rest.size() > 3 && rest[0] != '\0') {
    const std::string_view found = TakePaddedText(rest);
    const std::string_view value = TakePaddedText(rest);
    if (found == name) return runtime::CopyTextIfFits(output, value);
  }
  return false;
}

// --- all certificates --------------------------------------------------------------------------

void CertificateEntry::Clear() {
  *this = CertificateEntry{};
}

bool CHelperPkcs11::GetCertificates(std::optional<CK_SLOT_ID> slotFilter, std::uint8_t keyUsageMask,
                                    const char* firstFilter, const char* secondFilter,
                                    std::span<CertificateEntry> entries) {
  runtime::TraceWrite("HelperPkcs11 - Get certificates: 0x%.2X '%s' '%s'", keyUsageMask,
                      firstFilter, secondFilter);
  TokenSlots tokenSlots;
  const std::span<const CK_SLOT_ID> slots = tokenSlots.List();
  if (slots.empty()) return false;

  bool changed = ClearStaleEntries(entries, slots);
  Collection collection({keyUsageMask, firstFilter, secondFilter}, entries);
  for (const CK_SLOT_ID slot : slots) {
    // A slot of this number could not be told from a free entry.
    if (slot == kFreeSlot) continue;
    if (slotFilter && NormalizeSlotId(slot) != NormalizeSlotId(*slotFilter)) continue;
    if (collection.ReadSlot(slot)) changed = true;
  }
  OrderCertificates(entries);
  return changed;
}

std::size_t CHelperPkcs11::OrderCertificates(std::span<CertificateEntry> entries) {
  std::size_t count = entries.size();
  while (count != 0 && entries[count - 1].value == nullptr) --count;
  const std::span<CertificateEntry> used = entries.first(count);
  std::stable_partition(used.begin(), used.end(),
                        [](const CertificateEntry& entry) { return !entry.expired; });
  return count;
}

bool CHelperPkcs11::CollectCertificates(std::span<der::CertificatePtr> list,
                                        std::uint8_t keyUsageMask, const char* subjectFilter,
                                        const char* issuerFilter, bool markDuplicates) {
  if (list.empty()) return false;
  const std::size_t places = list.size() - 1;
  const std::unique_ptr<CertificateEntry[]> memory(new (std::nothrow) CertificateEntry[places]);
  if (memory == nullptr) return false;
  const std::span<CertificateEntry> entries(memory.get(), places);
  if (!GetCertificates(std::nullopt, keyUsageMask, issuerFilter, subjectFilter, entries)) {
    return false;
  }
  bool added = false;
  for (CertificateEntry& entry : entries) {
    if (AddCertificate(list, entry.Value(), entry.slot, entry.KeyIdentifier(), markDuplicates)) {
      added = true;
    }
    entry.Clear();
  }
  return added;
}

bool CHelperPkcs11::AddCertificate(std::span<der::CertificatePtr> list, der::Bytes value,
                                   CK_SLOT_ID slot, der::Bytes keyIdentifier, bool markDuplicates) {
  if (value.empty() || list.empty()) return false;
  const auto last = list.end() - 1;  // stays null
  const auto place = std::find(list.begin(), last, nullptr);
  if (place == last) return false;
  der::CertificatePtr added = der::LoadCertificate(value);
  if (added == nullptr) return false;
  added->slot = NormalizeSlotId(slot);
  added->rawSlot = slot;

  for (auto known = list.begin(); known != place; ++known) {
    der::CertificateHolder& other = **known;
    if (der::IsSameCertificate(other, *added)) {
      if (other.slot == 0) {
        other.slot = added->slot;
        other.rawSlot = added->rawSlot;
      }
      return false;
    }
    if (markDuplicates && der::AreDuplicates(other, *added)) {
      (der::RanksHigher(*added, other) ? other : *added).superseded = true;
    }
  }
  added->SetKeyIdentifier(keyIdentifier);
  *place = std::move(added);
  return true;
}

}  // namespace qixx::pkcs11
