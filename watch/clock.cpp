#include "watch/clock.h"

#include <algorithm>

#include "runtime/trace.h"
#include "watch/platform.h"
#include "watch/stop.h"

namespace qixx::watch {

WakeUp WatchWait(Clock& clock, unsigned milliseconds, int descriptor) {
  try {
    return clock.Wait(milliseconds, descriptor);
  } catch (...) {
    runtime::TraceWrite("Watch - Sleep exception");
    return StopRequested() ? WakeUp::kStop : WakeUp::kTimePassed;
  }
}

bool WatchSleep(Clock& clock, unsigned milliseconds) {
  return WatchWait(clock, milliseconds, kNoDescriptor) != WakeUp::kStop;
}

WakeUp WatchPause(const Platform& platform, unsigned milliseconds, int descriptor) {
  unsigned left = milliseconds;
  for (;;) {
    platform.manager.Alive();
    const unsigned step = std::min(left, platform.manager.LongestPause());
    const WakeUp wakeUp = WatchWait(platform.clock, step, descriptor);
    left -= step;
    if (left == 0 || wakeUp != WakeUp::kTimePassed) return wakeUp;
  }
}

}  // namespace qixx::watch
