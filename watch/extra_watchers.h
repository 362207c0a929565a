// Further watchers, as processes of their own.
//
// Watchers that start watchers make a tree. Environment variables, named by the product prefix,
// tell each of them its part of the tree: "watchdepth" how deep it stands, "watchroom" how many
// watchers it may start together with those below it, "watchlink" which process started it, with
// whose end the descriptor ends that it got, "watchstay" that the first one is below a service
// manager. To be called on the main thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "watch/options.h"
#include "watch/platform.h"
#include "watch/slot_loop.h"

namespace qixx::watch {

/// How many watchers may be started, each by the one before it.
inline constexpr unsigned kMaxWatcherDepth = 8;
/// How many watchers may be started by the first one and by all below it.
inline constexpr std::size_t kMaxExtraWatchers = 32;
/// Longest name of an extra watcher; a longer one is cut.
inline constexpr std::size_t kMaxExtraName = 58;
/// What the command line of a watcher begins with that another one started.
inline constexpr std::string_view kChildMark = "X ";

/// Whether the command line is that of an extra watcher.
[[nodiscard]] bool IsExtraWatcherLine(std::string_view line);
/// The names in a '|'-separated list, cut to kMaxExtraName; empty ones are left out.
[[nodiscard]] std::vector<std::string> ExtraWatcherNames(std::string_view list);
/// The entry of section "Command" with the watch command of an extra watcher.
[[nodiscard]] std::string ExtraWatcherEntry(std::string_view name);
/// The watch command of one that has none there.
[[nodiscard]] std::string UsualExtraCommand(std::string_view name);

/// Starts one child watcher for each '|'-separated field of `list`, in order, as many as there is
/// room for; what room is left is shared out evenly among them. `ownPath` is how this program was
/// called, `isManaged` whether a service manager started it.
void StartExtraWatchers(std::string_view list, const std::string& ownPath, bool isManaged = false);
/// Looks in each round at one of them, so at all in about ten seconds, or twenty while a card is
/// in. One that a signal or a library's exit ended, or that the system had no room for, is started
/// again, each at most once a minute and once the configuration that was there at the start is
/// there again; standard error and the trace say so. It has the command of its first start.
/// Allocates nothing while all run.
void LookAfterExtraWatcher(std::uint64_t round);
/// Whether any of them runs or is to be started again.
[[nodiscard]] bool HasExtraWatchers();
/// For a watcher whose own watch has ended: below a service manager, which would start the first
/// one, and so each of them, once more, it stays as long as it has extra watchers and is not told
/// to stop. True when it has commands to run now and could not run any before: they, or the memory
/// for them, may have been away.
[[nodiscard]] bool StayForExtraWatchers(const CWatchOptions& record, const Platform& platform,
                                        WatchEnd end);
/// At the end of a watcher: those that it started are told to stop as well when it was, and go on
/// without it when it ended by itself.
void LeaveExtraWatchers();
/// In a watcher that another one started: requests its stop when the other one has died without
/// having told.
void FollowParentWatcher();
/// The same in each round, for a link that another process keeps open, or that no thread follows.
/// Allocates nothing.
void LookForParentWatcher();

}  // namespace qixx::watch
