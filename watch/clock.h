// Time as the watch sees it: the pauses of the loop, the gates and the waits.
#pragma once

#include <cstdint>

namespace qixx::watch {

/// What ended a wait.
enum class WakeUp { kTimePassed, kReadable, kStop };

inline constexpr int kNoDescriptor = -1;

/// Where the watch's sleeps come from. The program's is in watch/stop.h; a test hands in its own,
/// in which no time passes.
class Clock {
 public:
  virtual ~Clock() = default;
  /// Waits up to that long, for `descriptor` to be readable if there is one; a process that is to
  /// stop ends the wait at once. A descriptor that is closed or broken ends no wait.
  virtual WakeUp Wait(unsigned milliseconds, int descriptor) = 0;
};

/// Clock::Wait; what a wait throws is traced and counts as time that passed.
WakeUp WatchWait(Clock& clock, unsigned milliseconds, int descriptor);
/// The same without a descriptor. False when the process is to stop.
bool WatchSleep(Clock& clock, unsigned milliseconds);

/// A wait before an event is made in rounds of that many milliseconds, three to a second.
inline constexpr unsigned kWaitPause = 333;
/// How many rounds a wait of so many seconds has; saturates.
[[nodiscard]] constexpr std::uint64_t WaitRounds(std::uint64_t seconds) {
  return seconds > UINT64_MAX / 3 ? UINT64_MAX : seconds * 3;
}

}  // namespace qixx::watch
