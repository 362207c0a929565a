// Tokens and certificates: what the watch asks about slots and the cards in them.
//
// Everything here goes through the process-wide wrapper of pkcs11/wrapper.h and trusts nothing that
// the library answers: counts, lengths and texts are checked before they are used, and endless
// lists are cut off. Every PKCS#11 failure becomes false, nothing or slot 0; only std::bad_alloc is
// thrown. Sessions are closed by their owners. The library is not made for several threads, so
// callers serialise all of this with their other uses of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "der/certificate.h"
#include "pkcs11/certificate_entries.h"
#include "pkcs11/cryptoki.h"
#include "pkcs11/session.h"
#include "runtime/text.h"

namespace qixx::pkcs11 {

/// A collection holds no more certificates.
inline constexpr std::size_t kMaxCertificates = 128;
/// The longest value of a token variable unless the caller takes more, in bytes.
inline constexpr std::size_t kMaxVariable = runtime::kMaxText;

/// Operations on tokens, always over the process-wide wrapper.
class CHelperPkcs11 {
 public:
  // --- slots -----------------------------------------------------------------------------------

  /// Tells the suite's own slots from card readers. A flags word that is negative as a signed
  /// 32-bit number says virtual before anything else; then a hardware slot is none; then the
  /// description decides.
  [[nodiscard]] static bool IsVirtualSlot(std::span<const CK_UTF8CHAR> description,
                                          CK_FLAGS flags) {
    if (static_cast<std::int32_t>(flags) < 0) return true;
    if ((flags & CKF_HW_SLOT) != 0) return false;
    return runtime::AsText(description).starts_with("Virtual Slot");
  }

  /// The first reader slot with a token. Without `readersOnly` the last virtual slot when there is
  /// none; with it slots above 99 are passed over. 0 for no slot: the slot loop relies on slot 0
  /// being no slot.
  [[nodiscard]] static CK_SLOT_ID FindWatchSlot(bool readersOnly);

  /// Slots up to 96 come in groups of three: the first slot of the group. Any other is its own
  /// group, 0 too.
  [[nodiscard]] static CK_SLOT_ID NormalizeSlotId(CK_SLOT_ID slot);

  // --- one certificate -------------------------------------------------------------------------

  /// Looks for the certificate object with this value.
  [[nodiscard]] static std::optional<SessionObject> FindCertificateOnSlot(der::Bytes value,
                                                                          CK_SLOT_ID slot);

  /// The same on every slot with a token until one has it. A preferred slot is exchanged with the
  /// first of the list.
  [[nodiscard]] static std::optional<SessionObject> FindCertificateOnAnySlot(
      der::Bytes value, std::optional<CK_SLOT_ID> preferredSlot = std::nullopt);

  /// Whether the certificate is on the token in `slot`, or on any token for slot 0. Initialises the
  /// library when nobody has. That reference is never given back: a caller who only asks this has
  /// no moment at which to do so.
  [[nodiscard]] static bool IsCertificatePresent(CK_SLOT_ID slot, der::Bytes value);

  // --- token variables -------------------------------------------------------------------------

  /// Reads a variable. Nothing when there is none of this name (letter case counts) or when its
  /// value is longer than `maxLength` bytes. The value comes from the card as it is.
  [[nodiscard]] static std::optional<std::string> GetTokenVariable(
      CK_SLOT_ID slot, bool isPrivate, std::string_view name, std::size_t maxLength = kMaxVariable);

  // --- all certificates ------------------------------------------------------------------------

  /// The certificates of all tokens, at most `maxCertificates`. With `markDuplicates` the lower of
  /// two duplicates is marked as superseded.
  [[nodiscard]] static std::vector<der::CertificatePtr> CollectCertificates(
      const CertificateFilter& filter, bool markDuplicates,
      std::size_t maxCertificates = kMaxCertificates);

  /// Brings `entries` up to date with the tokens: gives stale entries up, adds what is new, orders
  /// the list. With a `slotFilter` only slots of its group are read. Returns whether anything
  /// changed.
  static bool GetCertificates(std::optional<CK_SLOT_ID> slotFilter, const CertificateFilter& filter,
                              std::span<CertificateEntry> entries);

  /// Loads the certificate of an entry into the list. False when it is unreadable, already in the
  /// list or one more than `maxCertificates`.
  static bool AddCertificate(std::vector<der::CertificatePtr>& list, const CertificateEntry& entry,
                             bool markDuplicates, std::size_t maxCertificates = kMaxCertificates);
};

}  // namespace qixx::pkcs11
