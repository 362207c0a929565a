// Further watchers, as processes of their own.
#pragma once

#include <string>
#include <string_view>

namespace qixx::watch {

/// How many watchers may be started, each by the one before it.
inline constexpr unsigned kMaxWatcherDepth = 8;
/// Longest name of an extra watcher; a longer one is cut.
inline constexpr std::size_t kMaxExtraName = 58;
/// What the command line of a watcher begins with that another one started.
inline constexpr std::string_view kChildMark = "X ";

/// Starts one child watcher for each '|'-separated field of `list`. `ownPath` is how this program
/// was called. The environment variable named by the product prefix and "watchdepth" counts how
/// deep watchers have started watchers; at kMaxWatcherDepth none is started any more.
void StartExtraWatchers(std::string_view list, const std::string& ownPath);

}  // namespace qixx::watch
