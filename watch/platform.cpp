#include "watch/platform.h"

#include <algorithm>

namespace qixx::watch {

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
