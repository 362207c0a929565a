// The life of the process between its command line and its end.
#pragma once

#include <cstddef>
#include <span>

namespace qixx::watch {

/// How many watchers may be started, each by the one before it.
inline constexpr unsigned kMaximumWatcherDepth = 8;

/// Joins the process arguments, each followed by one blank, cut to the area.
void JoinArguments(int argc, const char* const* argv, std::span<char> line);

/// The whole life of the process; the stop handlers are installed before it. A null line is an
/// empty one; lines are cut to 1023 characters. Returns 0.
int WatchMain(int instance, int serviceHandle, const char* line);

/// The service handle that WatchMain was given; always 0 on this platform.
[[nodiscard]] int ServiceHandle();

/// The watch command of the program-local configuration file; true when `buffer` holds one.
bool ReadLocalWatchCommand(std::span<char> buffer);

/// Starts one child watcher for each '|'-separated field of `list`. The environment
/// variable named by the product prefix and "watchdepth" counts how deep watchers have started
/// watchers; at kMaximumWatcherDepth none is started any more.
void StartExtraWatchers(const char* list);

}  // namespace qixx::watch
