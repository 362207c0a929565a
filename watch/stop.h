// The request to stop (SIGTERM, SIGINT or SIGHUP) and the sleeps that it ends.
//
// The handler notes the signal and wakes the one descriptor that sleeps wait on, so that a signal
// delivered to any thread ends them. A second signal acts by default.
#pragma once

#include <cstdint>

namespace qixx::watch {

/// Installs the handlers, but for signals that are ignored; opens standard descriptors that are
/// closed on /dev/null; ignores SIGPIPE and SIGXFSZ, whose causes come back as failed writes.
void InstallStopHandlers();
[[nodiscard]] bool StopRequested();

/// Sleeps up to `milliseconds`. True when the time passed, false when the process is to stop, which
/// ends the sleep at once. Nothing is thrown.
bool WatchSleep(unsigned milliseconds);

/// A wait before an event is made in rounds of that many milliseconds, three to a second.
inline constexpr unsigned kWaitPause = 333;
/// The rounds of a wait in seconds; saturates.
[[nodiscard]] constexpr std::uint64_t WaitRounds(std::uint64_t seconds) {
  return seconds > UINT64_MAX / 3 ? UINT64_MAX : seconds * 3;
}

}  // namespace qixx::watch
