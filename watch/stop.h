// The request to stop (SIGTERM, SIGINT or SIGHUP) and the sleep that it ends.
//
// The handler notes the signal and wakes the one descriptor that sleeps wait on, so that a signal
// delivered to any thread ends them. A second signal acts by default.
#pragma once

#include "watch/clock.h"

namespace qixx::watch {

/// Installs the handlers, but for signals that are ignored; opens standard descriptors that are
/// closed on /dev/null; ignores SIGPIPE and SIGXFSZ, whose causes come back as failed writes.
void InstallStopHandlers();
[[nodiscard]] bool StopRequested();

/// The system's time, until the process is asked to stop. May be used from any thread.
class StoppableClock final : public Clock {
 public:
  bool Sleep(unsigned milliseconds) override;
};

}  // namespace qixx::watch
