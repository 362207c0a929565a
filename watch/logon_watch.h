// The logon variant of the slot loop: follows the card of the user who is logged on.
//
// spare: asked of this layer by the suite's design, built and tested; this platform does not tell
// who is logged on, so a run ends at once.
#pragma once

#include "watch/options.h"
#include "watch/platform.h"

namespace qixx::watch {

void WatchLogonSlot(CWatchOptions& record, const Platform& platform);

}  // namespace qixx::watch
