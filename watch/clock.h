// Time as the watch sees it: the pauses of the loop, the gates and the waits.
#pragma once

#include <cstdint>

namespace qixx::watch {

/// What sleeps are made by. The program's is in watch/stop.h; a test hands in its own, in which no
/// time passes.
class Clock {
 public:
  virtual ~Clock() = default;
  /// Sleeps up to that long. False when the process is to stop, which ends the sleep at once.
  virtual bool Sleep(unsigned milliseconds) = 0;
};

/// Clock::Sleep; what a sleep throws is traced and counts as time that passed.
bool WatchSleep(Clock& clock, unsigned milliseconds);

/// A wait before an event is made in rounds of that many milliseconds, three to a second.
inline constexpr unsigned kWaitPause = 333;
/// The rounds of a wait in seconds; saturates.
[[nodiscard]] constexpr std::uint64_t WaitRounds(std::uint64_t seconds) {
  return seconds > UINT64_MAX / 3 ? UINT64_MAX : seconds * 3;
}

}  // namespace qixx::watch
