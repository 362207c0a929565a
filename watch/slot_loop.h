// The watcher's run: background program, library, slot events, orderly end.
//
// Everything here runs on the main thread. A round without an event allocates nothing and touches
// no file, and wakes the process once; but every thirtieth one looks for a library that is missing.
#pragma once

#include "watch/options.h"
#include "watch/platform.h"

namespace qixx::watch {

enum class WatchEnd {
  kDone,
  kNoCommands,
  kNoMemory,  ///< for the watch as a whole; what a round lacks ends that round alone
};

/// The whole run of one watcher.
WatchEnd RunWatch(CWatchOptions& record, const Platform& platform);
/// The slot loop.
void WatchSlots(CWatchOptions& record, const Platform& platform);
/// Its logon variant (watch/logon_watch.cpp).
void WatchLogonSlot(CWatchOptions& record, const Platform& platform);

}  // namespace qixx::watch
