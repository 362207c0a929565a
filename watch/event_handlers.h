// The two event handlers, and the wait in front of them.
//
// They run on the loop's thread; each opens and releases a configuration of its own. Beyond an
// event they change only the record's process id, the terminate list, what is left of the parallel
// commands of an older removal, and how long files may keep the next ones waiting. Nothing is
// thrown by the handlers: memory that runs out fails the commands of an insert, or puts off the one
// command of a removal, and the handler goes on to its end.
#pragma once

#include <cstdint>
#include <list>
#include <string>

#include "watch/event.h"
#include "watch/options.h"
#include "watch/platform.h"

namespace qixx::watch {

/// Runs the commands of an insert in order, up to the first that fails. Returns true on success,
/// which a failing command in a section does not change, but for want of means (ScarceMeans).
bool OnInsertEvent(CWatchOptions& record, CK_SLOT_ID slot, const Platform& platform);

/// What a removal leaves to be done later, so that no screen stays open for want of means.
struct OwedRemoval {
  /// All of it: memory ran out, the keyword form's file has no room, or the process is to stop
  /// before its end.
  bool isWhole = false;
  /// The configuration was missing, unreadable or empty, so nothing has run yet.
  bool isUnread = false;
  std::list<std::string> commands = {};  ///< those that found no process, thread, memory or room

  [[nodiscard]] bool IsNothing() const { return !isWhole && !isUnread && commands.empty(); }
};
/// Runs all commands of a removal, and ends what the insert started for the slot.
OwedRemoval OnRemoveEvent(CWatchOptions& record, CK_SLOT_ID slot, const Platform& platform);
/// Tries the commands that a removal of the slot left, and returns those that have to be tried
/// again. `milliseconds`: how long files may keep it waiting.
[[nodiscard]] std::list<std::string> RunOwedCommands(const CWatchOptions& record, CK_SLOT_ID slot,
                                                     const Platform& platform,
                                                     std::list<std::string> commands,
                                                     std::int64_t milliseconds);

/// Called in each round of a wait, and before and after the commands; nothing to do on this
/// platform.
inline void EventHook(const CWatchOptions& /*record*/, EventKind /*kind*/) {}

}  // namespace qixx::watch
