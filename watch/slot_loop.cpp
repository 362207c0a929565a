#include "watch/slot_loop.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <ctime>
#include <optional>
#include <utility>

#include "pkcs11/reader.h"
#include "runtime/descriptor.h"
#include "runtime/process.h"
#include "runtime/secrets.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "watch/card_mark.h"
#include "watch/configuration.h"
#include "watch/edit_in_time.h"
#include "watch/event_handlers.h"
#include "watch/event_table.h"
#include "watch/extra_watchers.h"
#include "watch/guard.h"
#include "watch/rounds.h"
#include "watch/running_jobs.h"
#include "watch/status.h"
#include "watch/stop.h"

namespace qixx::watch {
namespace {

// Pauses between two rounds, in milliseconds.
constexpr unsigned kIdlePause = 333;
constexpr unsigned kConnectedPause = 666;

/// So many polls in a row may fail before the connected slot is asked itself.
constexpr std::uint64_t kFailuresPerQuestion = 3;

/// For so many rounds, about 3 s, a removal waits for a configuration that was missing or empty,
/// as while an editor writes it anew; one that was taken away on purpose runs nothing later.
constexpr unsigned kUnreadRounds = 9;
/// Whatever else is owed, or missed, is tried in each of the first 30 rounds, then in every
/// thirtieth.
constexpr unsigned kEagerRounds = 30;
[[nodiscard]] constexpr bool IsTurn(std::uint64_t round) {
  return round <= kEagerRounds || round % kEagerRounds == 0;
}

/// A library that leaks descriptors until there are none left must keep no removal from being run:
/// its configuration has to be opened. So some are held, and given back for the time of an event.
class DescriptorReserve {
 public:
  DescriptorReserve() { Fill(); }
  ~DescriptorReserve() { GiveBack(); }
  DescriptorReserve(const DescriptorReserve&) = delete;
  DescriptorReserve& operator=(const DescriptorReserve&) = delete;

  template <typename Step>
  void Lend(const Step& step) {
    GiveBack();
    const AtExit refill([this] { Fill(); });
    step();
  }

 private:
  static constexpr std::size_t kReserved = 8;

  /// Takes as many as there are, all of one pipe, which nobody else has open.
  void Fill() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return;
    held_[0] = runtime::Descriptor(ends[0]);
    held_[1] = runtime::Descriptor(ends[1]);
    pipe_ = runtime::StatusOf(held_[0]);
    for (std::size_t i = 2; i < held_.size(); ++i) {
      held_[i] = runtime::Descriptor(::fcntl(ends[0], F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    }
  }
  /// One that a library closed, to open its own in that place, stays the library's.
  void GiveBack() {
    for (runtime::Descriptor& held : held_) {
      if (!runtime::IsStill(pipe_, held.Get())) static_cast<void>(held.Release());
      held.Close();
    }
  }

  std::array<runtime::Descriptor, kReserved> held_;
  struct stat pipe_ {};  ///< what all of them are of
};

// --- the slot loop ------------------------------------------------------------------------------

/// What tells the mark of a watcher from others of its section: its command, where it has one of
/// its own.
std::string OwnCommand(const CWatchOptions& record) {
  if (FormOf(record) == CommandForm::kSection) return {};
  return record.rest + '\n' + record.program + '\n' + record.arguments + '\n' + record.configFile;
}

class SlotWatch {
 public:
  SlotWatch(CWatchOptions& record, const Platform& platform)
      : record_(record),
        platform_(platform),
        card_(platform.card),
        mark_(record.section, OwnCommand(record)) {}

  static constexpr bool kWakesEarly = true;

  /// True when the poll told of an event, whatever came of it.
  bool Round(bool initialisedLate) {
    const PolledEvent polled = card_.TakeEvent();
    const std::optional<CK_SLOT_ID> slot = EventSlot(polled, initialisedLate);
    const bool wasFirst = std::exchange(firstRound_, false);
    if (!owed_.IsNothing()) {
      reserve_.Lend([&] { RunStep([&] { TryOwed(slot); }); });
    }
    if (slot && IsFirstOfItsGroup(*slot)) {
      runtime::TraceWrite("Watch - Event");
      reserve_.Lend([&] { HandleEvent(*slot); });
    }
    if (wasFirst && record_.sync && connected_ == kNoSlot && mark_.IsSet()) {
      reserve_.Lend([&] { FollowMark(); });
    }
    CheckProgram();
    ClearMark();
    return polled.slot.has_value();
  }
  [[nodiscard]] std::string Status() const {
    return DescribeStatus(card_, connected_, connectedSince_);
  }
  [[nodiscard]] unsigned Pause() const {
    return connected_ != kNoSlot ? kConnectedPause : kIdlePause;
  }

 private:
  [[nodiscard]] static bool IsFirstOfItsGroup(CK_SLOT_ID slot) {
    return pkcs11::CHelperPkcs11::NormalizeSlotId(slot) == slot;
  }
  /// The slot of the poll's event. Without one: in the first round that of a card that is in, or
  /// none, so that the remove commands bring the desktop into its state without a card; later a
  /// removal or a card that the library did not tell of.
  std::optional<CK_SLOT_ID> EventSlot(const PolledEvent& polled, bool initialisedLate) {
    if (initialisedLate || polled.initialisedAgain) looks_ = 0;
    const bool mayBeLost = FollowFailures(polled.failure);
    if (polled.failure == CKR_OK && std::exchange(isDoubtful_, false)) looks_ = 0;
    if (polled.slot) {
      if (mayBeLost) looks_ = 0;
      return polled.slot;
    }
    if (firstRound_) return LookForToken();
    if ((std::exchange(isUntold_, false) || mayBeLost) && HasGone()) {
      isDoubtful_ = true;
      return connected_;
    }
    return looks_ ? MissedSlot() : std::nullopt;
  }
  /// Whether the connected card went without a word of the library.
  [[nodiscard]] bool HasGone() const {
    return connected_ != kNoSlot && !card_.ShowsToken(connected_);
  }
  /// A card that came behind the poll and goes before the next one is none that the library tells
  /// of, so the next poll that has no event asks the slot itself.
  CK_SLOT_ID LookForToken() {
    const CK_SLOT_ID slot = card_.FindSlotWithToken();
    isUntold_ = slot != kNoSlot;
    return slot;
  }
  /// True when a removal may have been lost with polls that failed, so that the connected slot is
  /// to be asked itself: now and then while they fail, and when that is over.
  bool FollowFailures(CK_RV failure) {
    if (failure == CKR_OK) return std::exchange(failures_, 0) != 0;
    if (++failures_ == 1) runtime::TraceWrite("Watch - Poll failed 0x%.8lX", failure);
    return failures_ % kFailuresPerQuestion == 0;
  }
  /// A library that came up late reports nothing from before: neither that the connected card has
  /// gone, which comes first, nor that a card is there. Its slots may give no answer for a while
  /// longer, so it is asked until there is a card.
  std::optional<CK_SLOT_ID> MissedSlot() {
    if (!card_.IsInitialised()) return std::nullopt;  // finalised once more: nothing to ask
    if (HasGone()) return connected_;
    CK_SLOT_ID slot = kNoSlot;
    if (connected_ == kNoSlot && IsTurn(++*looks_)) slot = LookForToken();
    if (connected_ != kNoSlot) looks_.reset();
    return slot == kNoSlot ? std::nullopt : std::optional(slot);
  }

  void HandleEvent(CK_SLOT_ID slot) {
    if (slot != kNoSlot && card_.ShowsToken(slot)) {
      HandleToken(slot);
    } else {
      HandleNoToken(slot);
    }
  }
  void HandleToken(CK_SLOT_ID slot) {
    if (connected_ != kNoSlot) {
      runtime::TraceWrite("Watch - Already connected");
      return;
    }
    // The poll was long, and the watch is to end: the next one connects the card.
    if (StopRequested()) return;
    if (record_.recognized && !card_.IsTokenReadable(slot)) return;
    // In front of the commands, which may not come to their end.
    isMarkDue_ = false;
    RunStep([this] { mark_.Set(); });
    // Connected even when a command failed, so that the card is not announced twice.
    const bool succeeded = OnInsertEvent(record_, slot, platform_);
    connected_ = slot;
    // What the last removal owes was tried before these commands. It stays owed when the insertion
    // failed, for its commands may not have run: a screen is rather locked too often than left
    // open.
    if (succeeded) ForgetOwed();
    connectedSince_ = std::time(nullptr);
    runtime::TraceWrite("Watch - Connected slot %d", static_cast<int>(slot));
  }

  /// An empty slot beside the connected one, which still shows its token, runs no removal; the
  /// connected slot is forgotten all the same.
  void HandleNoToken(CK_SLOT_ID slot) {
    const bool isRemoval = connected_ == kNoSlot ? !record_.sync : slot == connected_ || HasGone();
    const CK_SLOT_ID gone = std::exchange(connected_, kNoSlot);
    if (isRemoval) RunNewRemoval(gone);
  }
  /// Of the card that was connected when the watch ended. One that is still in is connected again;
  /// one that went meanwhile has nobody else to tell of it.
  void FollowMark() {
    const CK_SLOT_ID slot = LookForToken();
    const bool isIn = slot != kNoSlot && IsFirstOfItsGroup(slot);
    if (isIn) HandleToken(slot);
    if (connected_ != kNoSlot || (isIn && StopRequested())) return;
    isDoubtful_ = true;
    RunNewRemoval(kNoSlot);
  }
  void RunNewRemoval(CK_SLOT_ID slot) {
    owedRounds_ = 0;
    RunStep(&NoteCardGone);
    RunRemoval(slot);
  }
  /// What is owed of a removal is so to the next rounds or to the next start: the mark stays, as
  /// that of a card that is forgotten without a removal.
  void RunRemoval(CK_SLOT_ID slot) {
    isMarkDue_ = false;
    owedSlot_ = slot;
    owed_ = OnRemoveEvent(record_, slot, platform_);
    if (owed_.IsNothing()) Settle();
    runtime::TraceWrite("Watch - Disconnected slot %d", static_cast<int>(slot));
  }
  /// With an event it is tried in any case: when the next card counts, nothing is tried any more.
  /// While that card is in, its own removal is not to wait for this, and runs everything anyway.
  void TryOwed(std::optional<CK_SLOT_ID> event) {
    const bool isCardIn = connected_ != kNoSlot;
    if (isCardIn && event == connected_) return;
    ++owedRounds_;
    if (owed_.isUnread) {
      if (HasProductConfiguration()) return RunRemoval(owedSlot_);
      if (owedRounds_ >= kUnreadRounds) Settle();
      return;
    }
    // A whole removal may take a while.
    const bool isRare = isCardIn && owed_.isWhole;
    if (!event && !(isRare ? owedRounds_ % kEagerRounds == 0 : IsTurn(owedRounds_))) return;
    if (owed_.isWhole) return RunRemoval(owedSlot_);
    owed_.commands = RunOwedCommands(record_, owedSlot_, platform_, std::move(owed_.commands),
                                     isCardIn ? 0 : kFilePatience);
    if (owed_.IsNothing()) Settle();
  }
  void Settle() {
    ForgetOwed();
    isMarkDue_ = connected_ == kNoSlot;  // else it is the next card's
  }
  /// At the end of a round, once no command's thread runs: one that is killed on the way, or that a
  /// stop cut off, shall be run anew at the next start. A card that did not count may be in by
  /// then; the mark is its own.
  void ClearMark() {
    if (!isMarkDue_ || connected_ != kNoSlot || !HaveJobsRun()) return;
    isMarkDue_ = false;
    mark_.Clear();
  }
  void ForgetOwed() {
    owed_ = {};
    owedRounds_ = 0;
  }
  void CheckProgram() {
    if (record_.processId == 0 || runtime::IsProcessRunning(record_.processId)) return;
    runtime::TraceWrite("Watch - Process %d terminated normally",
                        static_cast<int>(record_.processId));
    record_.processId = 0;
  }

  CWatchOptions& record_;
  const Platform& platform_;
  CardReader& card_;
  CardMark mark_;
  DescriptorReserve reserve_;
  OwedRemoval owed_;
  CK_SLOT_ID owedSlot_ = kNoSlot;
  std::uint64_t owedRounds_ = 0;  ///< since something is owed
  bool isMarkDue_ = false;        ///< the mark is to be cleared
  CK_SLOT_ID connected_ = kNoSlot;
  std::time_t connectedSince_ = 0;
  bool firstRound_ = true;
  bool isUntold_ = false;       ///< a card was found without an event of the library
  std::uint64_t failures_ = 0;  ///< polls in a row that failed
  bool isDoubtful_ = false;     ///< a card counts as gone that a failing library may have hidden
  /// How often a card was looked for of which the library may never tell; nothing when none is.
  std::optional<std::uint64_t> looks_;
};

// --- the run ------------------------------------------------------------------------------------

/// Memory that runs out in one step keeps none of the others from being taken. False when it ran
/// out in the watch itself.
bool RunWithLibrary(CWatchOptions& record, const Platform& platform) {
  const auto tell = [&record](const char* state) {
    RunStep([&] {
      runtime::TraceWrite("Watch - %s '%s'", state, runtime::MaskedText(record.section).Text());
    });
  };
  const auto startBackground = [&record](const char* more) {
    if (record.background.empty()) return;
    RunStep([&] { runtime::StartApplication(record.background + more, true); });
  };
  startBackground("");
  tell("Started");
  RunStep([&] { platform.card.Initialise(); });
  tell("Running");
  const bool hasWatched = RunStep([&] {
    if (runtime::EqualsNoCase(record.section, kLogonSection)) {
      WatchLogonSlot(record, platform);
    } else {
      WatchSlots(record, platform);
    }
  });
  // Else the process goes on for them.
  if (StopRequested() || !HasExtraWatchers()) platform.manager.Stopping();
  tell("Stopping");
  RunStep([&] { platform.card.Finalise(); });
  startBackground(" -hide");
  return hasWatched;
}

}  // namespace

WatchEnd RunWatch(CWatchOptions& record, const Platform& platform) {
  runtime::TraceWrite("Watch - Starting");
  WatchEnd end = WatchEnd::kNoMemory;
  RunStep([&] { end = HasEventCommands(record) ? WatchEnd::kDone : WatchEnd::kNoCommands; });
  if (end == WatchEnd::kDone && !RunWithLibrary(record, platform)) end = WatchEnd::kNoMemory;
  if (end == WatchEnd::kNoCommands) {
    runtime::TraceWrite("Watch - No event commands available");
    RunStep([&] { NotifyWithoutCommands(record); });
  }
  runtime::TraceWrite("Watch - Stopped");
  return end;
}

void WatchSlots(CWatchOptions& record, const Platform& platform) {
  SlotWatch watch(record, platform);
  RunRounds(watch, record.roundLimit, platform);
}

}  // namespace qixx::watch
