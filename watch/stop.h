// The request to stop (SIGTERM, SIGINT or SIGHUP) and the sleep that it ends.
//
// The handler notes the signal and writes into the pipe that sleeps wait on, so that a signal
// delivered to any thread ends them. A second signal acts by default, unless the watcher that
// started this one passes it on: whoever ends all processes of the service sends each of them one.
// A library that closes the pipe's ends loses nothing but that wake-up: what is opened in their
// place is not written to, and the stop is seen when the sleep has passed.
#pragma once

#include <sys/types.h>

#include "watch/clock.h"

namespace qixx::watch {

/// Installs the handlers, but for signals that are ignored; opens /dev/null for each standard
/// descriptor that is closed; ignores SIGPIPE and SIGXFSZ, whose causes come back as failed writes,
/// and SIGTTOU, so that a notice goes to any terminal; lets children be waited for (SIGCHLD).
void InstallStopHandlers();
/// Takes the same signals once more, on this thread: a library may have had other plans with them.
void TakeStopSignals();
/// Which process started this watcher and passes its own stop signal on.
void TakeSignalsPassedOnBy(pid_t watcher);
/// From any thread, and from a signal handler.
void RequestStop();
[[nodiscard]] bool StopRequested();

/// The system's time, until the process is asked to stop. May be used from any thread.
class StoppableClock final : public Clock {
 public:
  WakeUp Wait(unsigned milliseconds, int descriptor) override;
};

}  // namespace qixx::watch
