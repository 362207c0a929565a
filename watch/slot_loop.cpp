#include "watch/slot_loop.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>

#include "pkcs11/reader.h"
#include "pkcs11/wrapper.h"
#include "runtime/children.h"
#include "runtime/files.h"
#include "runtime/process.h"
#include "runtime/secrets.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "watch/card_lock.h"
#include "watch/credentials.h"
#include "watch/event_table.h"
#include "watch/stop.h"

namespace qixx::watch {
namespace {

// Pauses between two rounds, in milliseconds.
constexpr unsigned kIdlePause = 333;
constexpr unsigned kConnectedPause = 666;
constexpr unsigned kLogonTrackedPause = 333;
constexpr unsigned kLogonSearchPause = 999;

/// Rounds between two tries to initialise a library that was not there at start.
constexpr std::uint64_t kInitialiseRounds = 30;
/// More pending events than this are left for the next round, so that a library that never runs out
/// of them cannot hold the loop.
constexpr int kEventsPerRound = 1024;

constexpr CK_SLOT_ID kNoSlot = 0;
constexpr std::string_view kHideOption = " -hide";

// --- the card, one call at a time ---------------------------------------------------------------

void InitialiseLibrary() {
  const CardScope card;
  // Without a library the watch runs on; it may come up later.
  pkcs11::Pkcs11().Initialize(nullptr);
}

void FinaliseLibrary() {
  const CardScope card;
  pkcs11::Pkcs11().Finalize(nullptr);
}

/// Tries again now and then while the library is not initialised; true when that has just worked.
bool InitialiseLater(std::uint64_t round) {
  if (round == 0 || round % kInitialiseRounds != 0) return false;
  const CardScope card;
  return pkcs11::Pkcs11().InitializeCount() == 0 && pkcs11::Pkcs11().Initialize(nullptr) == CKR_OK;
}

bool IsLibraryLoaded() {
  CK_FUNCTION_LIST_PTR functions = nullptr;
  return pkcs11::Pkcs11().InitializeCount() != 0 ||
         pkcs11::Pkcs11().GetFunctionList(&functions) != CKR_FUNCTION_FAILED;
}

/// Takes a pending event; an error counts as none. The poll would search the disk for a missing
/// library, so without one it is left out; that search is for InitialiseLater.
bool TakeEvent(CK_SLOT_ID& slot) {
  const CardScope card;
  if (!IsLibraryLoaded()) return false;
  const CK_RV result = pkcs11::Pkcs11().WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr);
  // Somebody else in the process has finalised it: ours is over too, and InitialiseLater is to act.
  const bool ended =
      result == CKR_CRYPTOKI_NOT_INITIALIZED && pkcs11::Pkcs11().InitializeCount() != 0;
  if (ended) pkcs11::Pkcs11().Finalize(nullptr);
  return result == CKR_OK;
}

CK_SLOT_ID FindSlotWithCard() {
  const CardScope card;
  return pkcs11::CHelperPkcs11::FindWatchSlot(true);
}

bool ShowsToken(CK_SLOT_ID slot) {
  CK_SLOT_INFO info = {};
  const CardScope card;
  return pkcs11::Pkcs11().GetSlotInfo(slot, &info) == CKR_OK &&
         (info.flags & CKF_TOKEN_PRESENT) != 0;
}

bool IsTokenReadable(CK_SLOT_ID slot) {
  CK_TOKEN_INFO info = {};
  const CardScope card;
  return pkcs11::Pkcs11().GetTokenInfo(slot, &info) == CKR_OK;
}

// --- the rounds of either variant ---------------------------------------------------------------

/// Runs `watch` for as many rounds as the record asks for, or until the process is to stop. The
/// pause follows the last round too.
template <typename Watch>
void RunRounds(Watch& watch, std::uint64_t limit) {
  for (std::uint64_t round = 0; round < limit && !StopRequested(); ++round) {
    watch.Round(InitialiseLater(round));
    runtime::ReapChildren();
    if (!WatchSleep(watch.Pause())) return;
  }
}

// --- the slot loop ------------------------------------------------------------------------------

class SlotWatch {
 public:
  explicit SlotWatch(CWatchOptions& record) : record_(record) {}

  void Round(bool initialisedLate) {
    CK_SLOT_ID slot = kNoSlot;
    if (NextEvent(initialisedLate, slot) && pkcs11::CHelperPkcs11::NormalizeSlotId(slot) == slot) {
      runtime::TraceWrite("Watch - Event");
      if (slot != kNoSlot && ShowsToken(slot)) {
        HandleToken(slot);
      } else {
        HandleNoToken(slot);
      }
    }
    CheckProgram();
    firstRound_ = false;
  }
  [[nodiscard]] unsigned Pause() const {
    return connected_ != kNoSlot ? kConnectedPause : kIdlePause;
  }

 private:
  /// The first round always has an event: that of a card that is there already, or of none, so that
  /// the remove commands bring the desktop into its state without a card.
  bool NextEvent(bool initialisedLate, CK_SLOT_ID& slot) {
    catchUp_ = catchUp_ || initialisedLate;
    if (TakeEvent(slot)) return true;
    if (firstRound_) {
      slot = FindSlotWithCard();
      connected_ = kNoSlot;
      return true;
    }
    slot = catchUp_ ? MissedSlot() : kNoSlot;
    return slot != kNoSlot;
  }
  /// A library that came up late reports nothing from before: neither that the connected card has
  /// gone, which comes first, nor that a card is there.
  CK_SLOT_ID MissedSlot() {
    if (pkcs11::Pkcs11().InitializeCount() == 0)
      return kNoSlot;  // finalised once more: nothing to ask
    if (connected_ != kNoSlot && !ShowsToken(connected_)) return connected_;
    catchUp_ = false;
    return connected_ == kNoSlot ? FindSlotWithCard() : kNoSlot;
  }

  void HandleToken(CK_SLOT_ID slot) {
    if (connected_ != kNoSlot) {
      runtime::TraceWrite("Watch - Already connected");
      return;
    }
    if (record_.recognized != 0 && !IsTokenReadable(slot)) return;
    // Connected even when a command failed, so that the card is not announced twice.
    OnInsertEvent(record_, slot);
    connected_ = slot;
    runtime::TraceWrite("Watch - Connected slot %d", static_cast<int>(slot));
  }

  /// The connected slot is forgotten in any case, also when no removal is dispatched.
  void HandleNoToken(CK_SLOT_ID slot) {
    if ((connected_ != kNoSlot || record_.sync == 0) && IsRemoval(slot)) {
      OnRemoveEvent(record_, connected_);
      runtime::TraceWrite("Watch - Disconnected slot %d", static_cast<int>(connected_));
    }
    connected_ = kNoSlot;
  }
  /// Another slot without a token says nothing while the connected one still shows its own.
  [[nodiscard]] bool IsRemoval(CK_SLOT_ID slot) const {
    return connected_ == kNoSlot || slot == connected_ || !ShowsToken(connected_);
  }

  void CheckProgram() {
    if (record_.processId == 0 || runtime::IsProcessRunning(record_.processId)) return;
    runtime::TraceWrite("Watch - Process %d terminated normally",
                        static_cast<int>(record_.processId));
    record_.processId = 0;
  }

  CWatchOptions& record_;
  CK_SLOT_ID connected_ = kNoSlot;
  bool firstRound_ = true;
  bool catchUp_ = false;  ///< what a library that came up late missed is still to be looked for
};

// --- the logon variant --------------------------------------------------------------------------

/// Follows the slot that holds the certificate of the logon user.
class LogonWatch {
 public:
  LogonWatch(CWatchOptions& record, const char* user) : record_(record), user_(user) {}

  void Round(bool initialisedLate) {
    if (tracked_ != kNoSlot) {
      FollowSlot(initialisedLate);
    } else {
      SearchSlot(initialisedLate);
    }
  }
  [[nodiscard]] unsigned Pause() const {
    return tracked_ != kNoSlot ? kLogonTrackedPause : kLogonSearchPause;
  }

 private:
  /// A library that came up late does not report what went before.
  void FollowSlot(bool initialisedLate) {
    if (initialisedLate && !HoldsCertificate()) return ForgetSlot();
    CK_SLOT_ID slot = kNoSlot;
    for (int taken = 0; taken < kEventsPerRound && TakeEvent(slot); ++taken) {
      if (slot == tracked_ && !HoldsCertificate()) return ForgetSlot();
    }
  }
  void ForgetSlot() {
    runtime::TraceWrite("Watch - Logon slot %d removed", static_cast<int>(tracked_));
    runtime::ResetStoredCredential(user_);
    OnRemoveEvent(record_, tracked_);
    tracked_ = kNoSlot;
    certificateLength_ = 0;
  }
  [[nodiscard]] bool HoldsCertificate() const {
    if (!ShowsToken(tracked_)) return false;
    const CardScope card;
    return pkcs11::CHelperPkcs11::IsCertificatePresent(
        tracked_, std::span(certificate_).first(certificateLength_));
  }

  void SearchSlot(bool initialisedLate) {
    CK_SLOT_ID eventSlot = kNoSlot;
    if (initialisedLate || slotCount_ == 0 || TakeEvent(eventSlot)) RefreshSlots();

    CK_SLOT_ID slot = kNoSlot;
    if (!FindUserSlot(slot)) return;
    if (slot != kNoSlot) {
      runtime::TraceWrite("Watch - Logon slot %d inserted", static_cast<int>(slot));
      OnInsertEvent(record_, slot);
      tracked_ = slot;
      // The events taken from now on do not keep the list up to date.
      slotCount_ = 0;
    } else {
      runtime::TraceWrite("Watch - Logon slot not found");
      runtime::ResetStoredCredential(user_);
      OnRemoveEvent(record_, kNoSlot);
    }
  }
  void RefreshSlots() {
    const CardScope card;
    CK_ULONG count = slots_.size();
    const bool listed = pkcs11::Pkcs11().GetSlotList(CK_TRUE, slots_.data(), &count) == CKR_OK;
    slotCount_ = listed ? std::min<std::size_t>(count, slots_.size()) : 0;
  }
  bool FindUserSlot(CK_SLOT_ID& slot) {
    const CardScope card;
    const std::span<const CK_SLOT_ID> slots = std::span(slots_).first(slotCount_);
    if (!FindLogonSlot(user_, slots, slot, certificate_, certificateLength_)) return false;
    certificateLength_ = std::min(certificateLength_, certificate_.size());
    return true;
  }

  CWatchOptions& record_;
  const char* user_;
  CK_SLOT_ID tracked_ = kNoSlot;
  std::array<CK_SLOT_ID, 256> slots_ = {};
  std::size_t slotCount_ = 0;
  std::array<std::uint8_t, 16384> certificate_ = {};
  std::size_t certificateLength_ = 0;
};

// --- the run ------------------------------------------------------------------------------------

/// With a background program, tells it to hide.
void HideBackground(const CWatchOptions& record) {
  if (record.background[0] == '\0') return;
  char arguments[sizeof record.background + kHideOption.size()];
  const std::size_t length = runtime::CopyTextCut(arguments, runtime::TextOf(record.background));
  runtime::CopyTextCut(std::span(arguments).subspan(length), kHideOption);
  runtime::StartApplication(arguments, true);
}

void RunWithLibrary(CWatchOptions& record) {
  if (record.background[0] != '\0') runtime::StartApplication(record.background, true);
  runtime::TraceWrite("Watch - Started '%s'", runtime::MaskedText(record.section).Text());
  InitialiseLibrary();
  runtime::TraceWrite("Watch - Running '%s'", runtime::MaskedText(record.section).Text());
  if (runtime::EqualsNoCase(runtime::TextOf(record.section), "Logon")) {
    WatchLogonSlot(record);
  } else {
    WatchSlots(record);
  }
  runtime::TraceWrite("Watch - Stopping '%s'", runtime::MaskedText(record.section).Text());
  FinaliseLibrary();
  HideBackground(record);
}

}  // namespace

void RunWatch(CWatchOptions& record) {
  runtime::TraceWrite("Watch - Starting");
  if (HasEventCommands(record)) {
    RunWithLibrary(record);
  } else {
    runtime::TraceWrite("Watch - No event commands available");
  }
  runtime::TraceWrite("Watch - Stopped");
}

void WatchSlots(CWatchOptions& record) {
  SlotWatch watch(record);
  RunRounds(watch, record.roundLimit);
}

void WatchLogonSlot(CWatchOptions& record) {
  char user[kLogonUserSize] = {};
  if (!FindLogonUser(user)) return;
  LogonWatch watch(record, user);
  RunRounds(watch, record.roundLimit);
}

}  // namespace qixx::watch
