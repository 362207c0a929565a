// The rounds of a watch, of the slot loop and of its logon variant.
#pragma once

#include <cstdint>
#include <utility>

#include "runtime/children.h"
#include "watch/extra_watchers.h"
#include "watch/guard.h"
#include "watch/platform.h"
#include "watch/stop.h"

namespace qixx::watch {

/// Rounds between two tries to initialise a library that was not there at start.
inline constexpr std::uint64_t kInitialiseRounds = 30;

/// Decides which pauses may end early, by the library's descriptor. One that is readable though a
/// poll has nothing to tell costs nothing: the pause behind such a poll is whole, and so are those
/// behind it, until the descriptor is seen unreadable.
class EarlyPolls {
 public:
  /// What the pause behind a poll waits for; `told`: the poll told of an event.
  int DescriptorFor(bool told, Clock& clock, int descriptor) {
    row_ = wasEarly_ ? row_ + 1 : 0;
    if (wasEarly_ && !told) isFalse_ = true;
    const bool isWhole = (wasEarly_ && !told) || row_ >= kMaxEarlyPolls;
    if (isWhole || descriptor == kNoDescriptor) return kNoDescriptor;
    if (isFalse_) isFalse_ = WatchWait(clock, 0, descriptor) == WakeUp::kReadable;
    return isFalse_ ? kNoDescriptor : descriptor;
  }
  void Note(WakeUp wakeUp) { wasEarly_ = wakeUp == WakeUp::kReadable; }

 private:
  /// A library that tells of events without end does not keep the loop busy.
  static constexpr unsigned kMaxEarlyPolls = 16;

  bool wasEarly_ = false;
  bool isFalse_ = false;
  unsigned row_ = 0;  ///< early polls one after the other
};

/// Rounds between two looks at what the service manager is told, when nothing happens.
inline constexpr std::uint64_t kStatusRounds = 30;

/// Runs `watch.Round(initialisedLate)` for as many rounds as are asked for, or until the process is
/// to stop, and tells the service manager of `watch.Status()`; memory that runs out ends the one
/// round. `watch.Pause()` follows the last round too; the library may end it early where the watch
/// allows that.
template <typename Watch>
void RunRounds(Watch& watch, std::uint64_t limit, const Platform& platform) {
  EarlyPolls early;
  unsigned pause = 0;
  platform.manager.Ready();
  for (std::uint64_t round = 0; round < limit && !StopRequested(); ++round) {
    const bool told = RunGuarded([&] {
      const bool isTurn = round != 0 && round % kInitialiseRounds == 0;
      return watch.Round(isTurn && platform.card.InitialiseAgain());
    });
    RunStep([] { runtime::ReapChildren(); });
    RunStep([round] { LookAfterExtraWatcher(round); });
    LookForParentWatcher();
    // A card that came or went shows in the pause.
    const bool hasChanged = std::exchange(pause, watch.Pause()) != pause;
    if (platform.manager.IsThere() && (hasChanged || round % kStatusRounds == 0)) {
      RunStep([&] { platform.manager.Status(watch.Status()); });
    }
    const int offered = Watch::kWakesEarly ? platform.card.EventDescriptor() : kNoDescriptor;
    const int descriptor = early.DescriptorFor(told, platform.clock, offered);
    const WakeUp wakeUp = WatchPause(platform, pause, descriptor);
    if (wakeUp == WakeUp::kStop) return;
    early.Note(wakeUp);
  }
}

}  // namespace qixx::watch
