// Tokens and certificates: what the watch asks about slots and the cards in them.
//
// Everything here goes through the process-wide wrapper of pkcs11/wrapper.h and trusts nothing that
// the library answers: counts, lengths and texts are checked before they are used, and endless
// lists are cut off. Every PKCS#11 failure becomes false or slot 0; nothing is thrown. Sessions are
// closed on every path unless one is handed out. The library is not made for several threads, so
// callers serialise all of this with their other uses of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string_view>

#include "der/certificate.h"
#include "pkcs11/cryptoki.h"

namespace qixx::pkcs11 {

/// The slot field and the kind of a free certificate entry.
inline constexpr CK_SLOT_ID kFreeSlot = 0xFFFFFFFF;
inline constexpr std::uint32_t kFreeKind = 0xFFFFFFFF;

/// Every key usage.
inline constexpr std::uint8_t kAnyKeyUsage = 255;

/// A certificate found on a token.
struct CertificateEntry {
  CK_SLOT_ID slot = kFreeSlot;  ///< where it was read; kFreeSlot marks a free entry
  CK_SESSION_HANDLE session = CK_INVALID_HANDLE;  ///< in which it was read, closed since
  CK_OBJECT_HANDLE object = CK_INVALID_HANDLE;
  std::uint32_t kind = kFreeKind;  ///< its certificate type while in use
  std::unique_ptr<CK_BYTE[]> value;
  std::size_t valueLength = 0;
  std::unique_ptr<CK_BYTE[]> keyIdentifier;
  std::size_t keyIdentifierLength = 0;
  std::unique_ptr<char[]> label;  ///< terminated; may be null
  char notBefore[24] = {};        ///< as the certificate writes it, empty when it cannot be had
  char notAfter[24] = {};
  bool expired = false;  ///< at the time of reading

  [[nodiscard]] bool IsFree() const { return slot == kFreeSlot; }
  [[nodiscard]] der::Bytes Value() const { return {value.get(), valueLength}; }
  [[nodiscard]] der::Bytes KeyIdentifier() const {
    return {keyIdentifier.get(), keyIdentifierLength};
  }
  /// Frees what it holds and makes the entry a free one.
  void Clear();
};

/// Operations on tokens, always over the process-wide wrapper.
class CHelperPkcs11 {
 public:
  // --- slots -----------------------------------------------------------------------------------

  /// Tells the suite's own slots from card readers. A flags word that is negative as a signed
  /// 32-bit number says virtual before anything else; then a hardware slot is none; then the
  /// description decides.
  [[nodiscard]] static bool IsVirtualSlot(std::span<const CK_UTF8CHAR> description, CK_FLAGS flags);

  /// The first reader slot with a token. Without `readersOnly` the last virtual slot when there is
  /// none; with it slots above 99 are passed over. 0 for no slot, which cannot be told from slot 0,
  /// as intended.
  [[nodiscard]] static CK_SLOT_ID FindWatchSlot(bool readersOnly);

  /// Slots up to 96 come in groups of three: the first slot of the group. Any other is its own
  /// group, 0 too.
  [[nodiscard]] static CK_SLOT_ID NormalizeSlotId(CK_SLOT_ID slot);

  // --- one certificate -------------------------------------------------------------------------

  /// Looks for the certificate object with this value. With a `session` the open session is handed
  /// out on success, for the caller to close. Outputs may be null and are set on success only.
  [[nodiscard]] static bool FindCertificateOnSlot(der::Bytes value, CK_SLOT_ID slot,
                                                  CK_SESSION_HANDLE* session,
                                                  CK_OBJECT_HANDLE* object);

  /// The same on every slot with a token, the one in `preferredSlot` (may be null) first;
  /// `preferredSlot` receives the slot that has it.
  [[nodiscard]] static bool FindCertificateOnAnySlot(der::Bytes value, CK_SLOT_ID* preferredSlot,
                                                     CK_SESSION_HANDLE* session,
                                                     CK_OBJECT_HANDLE* object);

  /// Whether the certificate is on the token in `slot`, or on any token for slot 0. Initialises the
  /// library when nobody has; that reference is never given back, as intended.
  [[nodiscard]] static bool IsCertificatePresent(CK_SLOT_ID slot, der::Bytes value);

  // --- token variables -------------------------------------------------------------------------

  /// Finds the data object in which the suite keeps its variables, on request making an empty one.
  /// On success the caller has the object and an open session to close.
  [[nodiscard]] static bool FindVariableObject(CK_SLOT_ID slot, bool isPrivate, bool create,
                                               CK_SESSION_HANDLE& session,
                                               CK_OBJECT_HANDLE& object);

  /// Reads a variable. False, with `output` left alone, when there is none of this name (letter
  /// case counts) or when its value is not shorter than the output. The value comes from the card
  /// as it is.
  [[nodiscard]] static bool GetTokenVariable(CK_SLOT_ID slot, bool isPrivate, std::string_view name,
                                             std::span<char> output);

  /// The same in a stored value: a zero byte, then names and values by turns, each padded with
  /// blanks and ended by a zero byte or by the end.
  [[nodiscard]] static bool FindVariable(der::Bytes store, std::string_view name,
                                         std::span<char> output);

  // --- all certificates ------------------------------------------------------------------------

  /// Adds the certificates of all tokens to `list`, which always ends with a null place: 128
  /// holders need 129 places. Null filters ask for nothing; the texts are those of
  /// CDerCert::MatchNames, applied to the subject and to the issuer unless they say otherwise. With
  /// `markDuplicates` the lower of two duplicates is marked as superseded. True when at least one
  /// was added.
  static bool CollectCertificates(std::span<der::CertificatePtr> list, std::uint8_t keyUsageMask,
                                  const char* subjectFilter, const char* issuerFilter,
                                  bool markDuplicates);

  /// Brings `entries` up to date with the tokens: gives stale entries up, adds what is new, orders
  /// the list. With a `slotFilter` only slots of its group are read. The first filter is for the
  /// issuer, the second for the subject. Returns whether anything changed.
  static bool GetCertificates(std::optional<CK_SLOT_ID> slotFilter, std::uint8_t keyUsageMask,
                              const char* firstFilter, const char* secondFilter,
                              std::span<CertificateEntry> entries);

  /// Loads one certificate into the first empty place. False when it is unreadable, already in the
  /// list or when there is no place.
  static bool AddCertificate(std::span<der::CertificatePtr> list, der::Bytes value, CK_SLOT_ID slot,
                             der::Bytes keyIdentifier, bool markDuplicates);

  /// Moves expired certificates behind the others, each group in its order. Returns the number of
  /// entries without those at the end that hold no value.
  static std::size_t OrderCertificates(std::span<CertificateEntry> entries);
};

}  // namespace qixx::pkcs11
