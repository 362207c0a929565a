// The card, as the watch uses it.
//
// The PKCS#11 library is initialised without locking, so the program's reader makes every use of it
// under one recursive lock: calls of the loop and of commands on threads of their own. The lock is
// never held while sleeping or while an event's commands run. Order: card lock before trace lock.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "der/certificate.h"
#include "pkcs11/cryptoki.h"
#include "watch/clock.h"

namespace qixx::watch {

inline constexpr CK_SLOT_ID kNoSlot = 0;
/// More slots than this with a token count as none.
inline constexpr std::size_t kMaxSlots = 256;
/// A slot's description, with its padding and without terminator.
using SlotDescription = std::array<char, sizeof(CK_SLOT_INFO::slotDescription)>;

/// What a poll for slot events tells.
struct PolledEvent {
  std::optional<CK_SLOT_ID> slot = {};  ///< of a pending event
  CK_RV failure = CKR_OK;               ///< what the library answered when it could not tell
  bool initialisedAgain = false;  ///< it had been finalised by others; earlier events are lost
};

/// What the watch asks of card readers and the cards in them; a failed question has no answer.
/// Tests hand in a reader of their own.
class CardReader {
 public:
  virtual ~CardReader() = default;

  // --- the library -----------------------------------------------------------------------------

  /// Without a library the watch runs on; it may come up later.
  virtual void Initialise() = 0;
  virtual void Finalise() = 0;
  [[nodiscard]] virtual bool IsInitialised() = 0;
  /// Initialises a library that is not; true when that has just worked.
  virtual bool InitialiseAgain() = 0;

  // --- slots -----------------------------------------------------------------------------------

  /// Polls for an event, without waiting for one. A library that is not initialised any more is
  /// initialised, and polled once more.
  virtual PolledEvent TakeEvent() = 0;
  /// A descriptor that is readable when a poll would have something to tell, kNoDescriptor for
  /// none. It is the library's, which may close it.
  virtual int EventDescriptor() = 0;
  /// The first card reader with a token, kNoSlot when there is none.
  virtual CK_SLOT_ID FindSlotWithToken() = 0;
  virtual std::vector<CK_SLOT_ID> SlotsWithToken() = 0;
  /// Whether there is any slot, with or without a token.
  virtual bool HasReader() = 0;
  virtual bool ShowsToken(CK_SLOT_ID slot) = 0;
  virtual bool IsTokenReadable(CK_SLOT_ID slot) = 0;
  virtual std::optional<SlotDescription> Description(CK_SLOT_ID slot) = 0;

  // --- what is on the cards --------------------------------------------------------------------

  /// The certificates of all cards, those marked that a duplicate outranks; empty on failure.
  virtual std::vector<der::CertificatePtr> CollectCertificates() = 0;
  /// Whether a card has a certificate of this subject; with a slot only the cards of its group.
  virtual bool HasCertificateOf(const std::string& subject, std::optional<CK_SLOT_ID> slot) = 0;
  virtual bool HoldsCertificate(CK_SLOT_ID slot, der::Bytes certificate) = 0;
  /// A variable that the suite keeps on the token, as it stands there.
  virtual std::optional<std::string> TokenVariable(CK_SLOT_ID slot, std::string_view name) = 0;
};

/// The reader over the process-wide PKCS#11 wrapper; never destroyed.
CardReader& SystemCardReader();

}  // namespace qixx::watch
