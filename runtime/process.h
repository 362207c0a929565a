// Starting programs as detached children, without a shell.
//
// The child starts a session of its own, so it outlives the service. Trace lines show command lines
// with their secrets masked. May be called from any thread.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qixx::runtime {

/// Do not wait for the child at all.
inline constexpr std::int64_t kWaitNone = 0;

/// Forks and runs `program` with the split `arguments`; a null or empty program takes the first
/// token of the arguments instead. Wait mode 1 waits for about a second (10 polls, 99 ms apart), a
/// greater n for about n seconds (n polls, 999 ms apart). Returns 0 when the fork failed, else 1,
/// even when the program could not be started. `show` has no effect on this platform, and nothing
/// is stored in `processId`: callers rely on keeping what they put there.
int LaunchProcess(const char* program, const char* arguments, std::int64_t waitMode, bool show,
                  std::uint64_t* processId);

/// Splits at blanks; double quotes hold a token together and are dropped from tokens of four
/// characters and more that do not begin with a quoted '-'. Entry 0 is the program. Returns a
/// null-ended vector to be freed with FreeArguments, or null; `count` excludes the end mark.
[[nodiscard]] char** SplitArguments(const char* program, const char* arguments, std::size_t& count);
void FreeArguments(char** vector);

/// Whether there is such a child and it still runs. Traces, and reaps an ended child.
bool IsProcessRunning(std::uint64_t processId);

/// With `startProgram` starts the product's main program from the "bin/" beside the installation
/// directory and returns the launcher's result; without it calls the administration entry and
/// returns 1.
int StartApplication(const char* arguments, bool startProgram);

}  // namespace qixx::runtime
