#include "watch/list_library.h"

#include <algorithm>
#include <span>
#include <utility>

#include "der/logon_values.h"
#include "pkcs11/reader.h"
#include "pkcs11/session.h"
#include "pkcs11/wrapper.h"
#include "runtime/loader.h"
#include "runtime/product.h"
#include "runtime/text.h"
#include "watch/card_reader.h"
#include "watch/credentials.h"
#include "watch/event_table.h"
#include "watch/guard.h"
#include "watch/placeholders.h"

namespace qixx::watch {
namespace {

using pkcs11::CHelperPkcs11;
using pkcs11::Pkcs11;

/// A fixed text of the library's, padded with blanks.
template <typename Character, std::size_t kSize>
std::string PaddedText(const Character (&text)[kSize]) {
  const std::string_view view(reinterpret_cast<const char*>(text), kSize);
  return std::string(runtime::DropTrailingBlanks(runtime::UpToZero(view)));
}

std::string VersionText(const CK_VERSION& version) {
  return std::to_string(version.major) + '.' + std::to_string(version.minor);
}

/// Asks the library, and notes what fails.
class Asking {
 public:
  explicit Asking(Listing& listing) : listing_(listing), card_(SystemCardReader()) {}

  void Initialise() {
    ListedLibrary& library = listing_.library;
    library.name = runtime::Product().pkcs11Library;
    library.result = Pkcs11().Initialize(nullptr);
    library.modules = runtime::LibrariesDefining("C_GetFunctionList");
    if (!library.modules.empty()) {
      library.file = std::move(library.modules.front());
      library.modules.erase(library.modules.begin());
      Worked("C_Initialize", std::nullopt, library.result);
      library.fault = Pkcs11().ModuleFault();
    } else if (const auto found = runtime::LoadLibrarySearch(library.name, &library.tried)) {
      library.tried.push_back({found->path, "C_GetFunctionList is missing, or fails"});
    }
    // The installation's directory may be that of all libraries.
    const auto isSamePlace = [](const auto& a, const auto& b) { return a.path == b.path; };
    library.tried.erase(std::unique(library.tried.begin(), library.tried.end(), isSamePlace),
                        library.tried.end());
  }
  /// The library is finalised whatever happens.
  void AskForEverything(const std::string& match) {
    const AtExit finalise([this] { finalised_ = Pkcs11().Finalize(nullptr); });
    AskForVersion();
    AskForReaders();
    const std::vector<der::CertificatePtr> certificates = card_.CollectCertificates();
    const CredentialMatch wanted = SelectionMatch(match);
    const std::optional<Selection> selection = SelectCertificate(certificates, wanted);
    const std::vector<Verdict> verdicts = JudgeCertificates(certificates, wanted, selection);
    for (std::size_t i = 0; i < certificates.size(); ++i) {
      AddCertificate(*certificates[i], verdicts[i]);
    }
    for (const ListedCard& card : listing_.cards) LookAtObjects(card.slot, certificates);
    listing_.hasMatchingCard = IsMatchingCardPresent(card_, match);
    AddPlaceholders(match);
  }
  void NoteEnd() { Worked("C_Finalize", std::nullopt, finalised_); }

 private:
  bool Worked(const char* call, std::optional<CK_SLOT_ID> slot, std::optional<CK_RV> result) {
    if (result == CKR_OK) return true;
    listing_.failures.push_back({call, slot, result});
    return false;
  }

  void AskForVersion() {
    CK_INFO info = {};
    if (!Worked("C_GetInfo", std::nullopt, Pkcs11().GetInfo(&info))) return;
    ListedLibrary& library = listing_.library;
    library.manufacturer = PaddedText(info.manufacturerID);
    library.description = PaddedText(info.libraryDescription);
    library.version = VersionText(info.libraryVersion);
    library.cryptoki = VersionText(info.cryptokiVersion);
  }

  std::vector<CK_SLOT_ID> AskForSlots(CK_BBOOL withToken) {
    auto [result, slots] = pkcs11::ListSlots(withToken);
    Worked("C_GetSlotList", std::nullopt, result);
    return std::move(slots);
  }

  void AskForReaders() {
    const std::vector<CK_SLOT_ID> slots = AskForSlots(CK_FALSE);
    withToken_ = AskForSlots(CK_TRUE);
    for (const CK_SLOT_ID slot : slots) {
      ListedReader reader = AskForReader(slot);
      if (reader.counting == Counting::kYes && IsWithheld(reader)) {
        reader.counting = Counting::kWithheld;
      }
      if (reader.hasCard) AskForCard(slot);
      listing_.readers.push_back(std::move(reader));
    }
  }

  /// Where the library does not say which slots count, the list of its cards shows it.
  [[nodiscard]] bool IsWithheld(const ListedReader& reader) const {
    const bool isShown = !reader.hasCard || IsListed(reader.slot);
    return !Pkcs11().SlotCounts(reader.slot).value_or(isShown);
  }
  [[nodiscard]] bool IsListed(CK_SLOT_ID slot) const {
    return std::ranges::find(withToken_, slot) != withToken_.end();
  }

  ListedReader AskForReader(CK_SLOT_ID slot) {
    ListedReader reader;
    reader.slot = slot;
    if (slot == kNoSlot) reader.counting = Counting::kNoSlot;
    if (CHelperPkcs11::NormalizeSlotId(slot) != slot) reader.counting = Counting::kSecondary;
    CK_SLOT_INFO info = {};
    reader.isKnown = Worked("C_GetSlotInfo", slot, Pkcs11().GetSlotInfo(slot, &info));
    if (!reader.isKnown) return reader;
    reader.description = PaddedText(info.slotDescription);
    reader.manufacturer = PaddedText(info.manufacturerID);
    reader.isRemovable = (info.flags & CKF_REMOVABLE_DEVICE) != 0;
    reader.hasCard = (info.flags & CKF_TOKEN_PRESENT) != 0;
    return reader;
  }

  void AskForCard(CK_SLOT_ID slot) {
    ListedCard card;
    card.slot = slot;
    CK_TOKEN_INFO info = {};
    if (Worked("C_GetTokenInfo", slot, Pkcs11().GetTokenInfo(slot, &info))) {
      card.label = PaddedText(info.label);
      card.manufacturer = PaddedText(info.manufacturerID);
      card.model = PaddedText(info.model);
      card.serial = PaddedText(info.serialNumber);
      card.flags = info.flags;
    }
    listing_.cards.push_back(std::move(card));
  }

  // --- certificates ---

  void AddCertificate(const der::CertificateHolder& holder, Verdict verdict) {
    const der::CDerCert& certificate = holder.certificate;
    der::Validity validity = certificate.GetValidity();
    listing_.certificates.push_back(
        {.slot = static_cast<CK_SLOT_ID>(holder.rawSlot),
         .label = {},
         .subject = std::string(certificate.GetSubjectText()),
         .issuer = std::string(certificate.GetIssuerText()),
         .upn = der::GetPrincipalName(holder, false).value_or(""),
         .email = der::GetPrincipalName(holder, true).value_or(""),
         .serial = runtime::HexEncode(der::GetSerialNumber(certificate)),
         .usages = der::GetKeyUsages(certificate),
         .purposes = der::GetExtendedKeyUsages(certificate),
         .notBefore = std::move(validity.notBefore),
         .notAfter = std::move(validity.notAfter),
         .isExpired = certificate.IsExpired(),
         .verdict = verdict});
  }

  /// Reads the card's certificate objects as the collection does, one by one, for their labels and
  /// for those that did not come into it.
  void LookAtObjects(CK_SLOT_ID slot, std::span<const der::CertificatePtr> certificates) {
    CK_RV refusal = CKR_OK;
    const std::optional<pkcs11::Session> session = pkcs11::Session::Open(slot, &refusal);
    if (!Worked("C_OpenSession", slot, refusal) || !session) return;
    for (const CK_OBJECT_HANDLE handle : FindCertificates(*session, slot)) {
      if (auto object = pkcs11::ReadCertificate(*session, slot, handle)) {
        MatchObject(std::move(*object), certificates);
      } else {
        listing_.omitted.push_back({slot, {}, Omission::kUnreadable});
      }
    }
  }

  std::vector<CK_OBJECT_HANDLE> FindCertificates(const pkcs11::Session& session, CK_SLOT_ID slot) {
    std::vector<CK_OBJECT_HANDLE> handles;
    const auto result = pkcs11::ForEachCertificate(
        session, [&handles](CK_OBJECT_HANDLE handle) { handles.push_back(handle); });
    if (result == pkcs11::SearchResult::kFailure) Worked("C_FindObjects", slot, std::nullopt);
    return handles;
  }

  void MatchObject(pkcs11::CertificateEntry object,
                   std::span<const der::CertificatePtr> certificates) {
    const CK_SLOT_ID slot = object.slot;
    std::string& label = object.label;
    const der::CertificatePtr loaded = der::LoadCertificate(object.value);
    const auto same = [&loaded](const der::CertificatePtr& other) {
      return loaded != nullptr && loaded->certificate.IsSame(other->certificate);
    };
    const auto known = std::ranges::find_if(certificates, same);
    if (known == certificates.end()) {
      const Wording reason = IsListed(slot) ? Omission::kNoCertificate : Omission::kWithheld;
      listing_.omitted.push_back({slot, std::move(label), reason});
    } else if ((*known)->rawSlot != slot) {
      listing_.omitted.push_back({slot, std::move(label), Omission::kSameAsAnother});
    } else {
      const auto index = static_cast<std::size_t>(known - certificates.begin());
      listing_.certificates[index].label = std::move(label);
    }
  }

  // --- placeholders ---

  void AddPlaceholders(const std::string& match) {
    const std::optional<LogonValues> values = FindLogonCredential(card_, match, kNoSlot);
    for (const NamedPlaceholder& placeholder : kNamedPlaceholders) {
      AddPlaceholder(std::string(placeholder.name), values);
    }
    if (!values) return;
    for (const SubjectPlaceholder& component : SubjectPlaceholders(values->subject)) {
      AddPlaceholder(component.name, values);
    }
  }
  void AddPlaceholder(const std::string& name, const std::optional<LogonValues>& values) {
    ListedPlaceholder placeholder{name, name, values.has_value()};
    if (values) placeholder.value = ReplaceLogonPlaceholders(*values, name, kMaxInsertEntry);
    listing_.placeholders.push_back(std::move(placeholder));
  }

  Listing& listing_;
  CardReader& card_;
  std::vector<CK_SLOT_ID> withToken_;  ///< as the library lists them
  CK_RV finalised_ = CKR_OK;
};

}  // namespace

void ListLibrary(const std::string& match, Listing& listing) {
  Asking asking(listing);
  asking.Initialise();
  if (!listing.library.Answers()) return;
  asking.AskForEverything(match);
  asking.NoteEnd();
}

}  // namespace qixx::watch
