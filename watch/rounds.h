// The rounds of a watch, of the slot loop and of its logon variant.
#pragma once

#include <cstdint>

#include "runtime/children.h"
#include "watch/guard.h"
#include "watch/platform.h"
#include "watch/stop.h"

namespace qixx::watch {

/// Rounds between two tries to initialise a library that was not there at start.
inline constexpr std::uint64_t kInitialiseRounds = 30;

/// Tries again now and then while the library is not initialised; true when that has just worked.
inline bool InitialiseLater(CardReader& card, std::uint64_t round) {
  return round != 0 && round % kInitialiseRounds == 0 && card.InitialiseAgain();
}

/// Runs `watch.Round(initialisedLate)` for as many rounds as are asked for, or until the process is
/// to stop; memory that runs out ends the one round. `watch.Pause()` follows the last round too.
template <typename Watch>
void RunRounds(Watch& watch, std::uint64_t limit, const Platform& platform) {
  for (std::uint64_t round = 0; round < limit && !StopRequested(); ++round) {
    RunGuarded([&] { return watch.Round(InitialiseLater(platform.card, round)), true; });
    runtime::ReapChildren();
    if (!WatchSleep(platform.clock, watch.Pause())) return;
  }
}

}  // namespace qixx::watch
