// Starting programs as detached children, without a shell, and ending them.
//
// The child starts a session of its own, so it outlives the service. Trace lines show command lines
// with their secrets masked. May be called from any thread; only std::bad_alloc is thrown, and
// never behind a fork.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qixx::runtime {

/// Wait no longer for the child than each launch does.
inline constexpr std::int64_t kWaitNone = 0;
/// The number under which a program gets the one descriptor that may be passed on to it, beside the
/// standard ones.
inline constexpr int kPassedDescriptor = 3;

/// A child that its starter looks after: it is marked (see runtime/children.h), and gets a
/// descriptor and variables that others do not.
struct KeptChild {
  int passed = -1;                          ///< the starter's; the program gets a copy
  std::vector<std::string> variables = {};  ///< "NAME=value", in the service's environment
};

/// Forks and runs `program` with the split `arguments`; an empty program takes the first token of
/// the arguments instead. Each launch takes 99 ms. Wait mode 1 then waits for about a second (10
/// polls, 99 ms apart), a greater n for about n seconds (n polls, 999 ms apart). A child that has
/// failed when the wait is over is told of in the trace and on standard error. False when the fork
/// failed, which ScarceMeans and, once, standard error may tell of; true whatever became of the
/// child, even when the program could not be started.
bool LaunchProcess(const std::string& program, std::string_view arguments,
                   std::int64_t waitMode = kWaitNone);
/// The same for a kept child, without a wait. Its id; 0 when the fork failed.
pid_t LaunchKept(const std::string& program, std::string_view arguments, const KeptChild& kept);

/// Takes the first token off a line, with its quotes; nothing when only blanks are left.
[[nodiscard]] std::optional<std::string_view> TakeToken(std::string_view& line);
/// Splits at blanks; double quotes hold a token together and are dropped from tokens of four
/// characters and more that do not begin with a quoted '-'. Entry 0 is the program, or the first
/// token when the program is empty. Empty when there is no entry at all.
[[nodiscard]] std::vector<std::string> SplitArguments(std::string_view program,
                                                      std::string_view arguments);
/// Whether split entries end with ">" and a file for the output, behind the program.
[[nodiscard]] bool RedirectsOutput(const std::vector<std::string>& entries);

/// Whether there is such a child and it still runs. Traces, and reaps an ended child.
bool IsProcessRunning(std::uint64_t processId);
/// Kills the process and tests up to ten times for its end. True when it was gone at one of the
/// first nine tests: one that is found gone at the tenth counts as not ended, which the terminate
/// commands rely on. Ids outside 1 to INT_MAX are refused.
bool EndProcess(std::uint64_t processId);

/// With `startProgram` starts the product's main program from the "bin/" beside the installation
/// directory and returns the launcher's result; without it calls the administration entry and
/// returns true.
bool StartApplication(std::string_view arguments, bool startProgram);

}  // namespace qixx::runtime
