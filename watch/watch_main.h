// The life of the process between its command line and its end.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "runtime/text.h"
#include "watch/options.h"
#include "watch/platform.h"

namespace qixx::watch {

/// Longest command line, and longest configured command of a watcher; longer ones are cut.
inline constexpr std::size_t kMaxCommandLine = runtime::kMaxLine;

/// Joins the process arguments, each followed by one blank, cut to kMaxCommandLine.
[[nodiscard]] std::string JoinArguments(int argc, const char* const* argv);

/// The whole life of the process; the stop handlers are installed before it. Lines are cut to
/// kMaxCommandLine. Returns 0, also when memory runs out: then what it runs out in is left out, and
/// the end is as orderly as every other. Only an extra watcher that memory keeps from watching
/// returns another value, for which the one that started it starts it again.
int WatchMain(int instance, int serviceHandle, std::string_view line, const Platform& platform);

/// spare: the service handle that WatchMain was given; always 0 on this platform.
inline constinit int givenServiceHandle = 0;

/// The program-local configuration file: the program's path with another ending. Nothing for a path
/// without a dot, and, which is traced, for a file that is neither the service's, root's nor that
/// of the program's owner.
[[nodiscard]] std::optional<std::string> LocalConfigurationPath();
/// The watch command of the program-local configuration file; nothing when there is none, or when
/// it is empty.
[[nodiscard]] std::optional<std::string> ReadLocalWatchCommand();

/// Takes the section out of "config section|extra|extra" and gives the list of extra watchers.
[[nodiscard]] std::string SplitConfigRest(CWatchOptions& record);

}  // namespace qixx::watch
