// The request to stop: SIGTERM, SIGINT or SIGHUP.
//
// The handler notes the signal and wakes the one descriptor that sleeps wait on, so that a signal
// delivered to any thread ends them. A second signal acts by default.
#pragma once

namespace qixx {

/// Installs the handlers, but for signals that are ignored; opens standard descriptors that are
/// closed on /dev/null; ignores SIGPIPE and SIGXFSZ, whose causes come back as failed writes.
void InstallStopHandlers();
[[nodiscard]] bool StopRequested();
/// Sleeps up to `milliseconds`; true when the time passed, false when the process is to stop.
bool SleepUnlessStopped(unsigned milliseconds);

}  // namespace qixx
