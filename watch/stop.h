// The request to stop: SIGTERM, SIGINT or SIGHUP.
//
// The handler notes the signal and wakes the one descriptor that sleeps wait on, so that a signal
// delivered to any thread ends them. A second signal acts by default.
#pragma once

namespace qixx {

/// Installs the handlers; opens standard descriptors that are closed on /dev/null; ignores SIGPIPE.
void InstallStopHandlers();
[[nodiscard]] bool StopRequested();
/// The signal that asked for the stop, 0 without one.
[[nodiscard]] int StopSignal();
/// Sleeps up to `milliseconds`; true when the time passed, false when the process is to stop.
bool SleepUnlessStopped(unsigned milliseconds);

}  // namespace qixx
