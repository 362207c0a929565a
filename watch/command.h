// Running one command text.
//
// The head of a text picks the kind of command: a program to start, a thread of its own, a library
// to call, logon values to write, a document to open. All operations may be called from any thread.
// Secrets in command texts do not reach the trace. Only std::bad_alloc is thrown.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/text.h"
#include "watch/card_reader.h"
#include "watch/event.h"

namespace qixx::watch {

/// Longest path of a program that "application " starts.
inline constexpr std::size_t kMaxProgram = runtime::kMaxText;
/// What shows a document.
inline constexpr const char* kDocumentViewer = "/usr/bin/xdg-open";

/// Keywords that the handlers of events look for as well.
inline constexpr std::string_view kRegistryKeyword = "-r ";
inline constexpr std::string_view kCloseKeyword = "close ";
inline constexpr std::string_view kKillKeyword = "kill ";

enum class CommandKind {
  kProgram,
  kApplication,
  kParallel,
  kSet,
  kDocument,
  kLoad,
  kExtern,
  kNothing,  ///< does nothing, and succeeds
  kFailure,  ///< does nothing, and fails
};

/// A command text taken apart at its keyword.
struct CommandParts {
  CommandKind kind = CommandKind::kProgram;
  std::string_view text;  ///< what stands behind the keyword; all of a program's command line
};
[[nodiscard]] CommandParts SplitCommand(EventKind kind, std::string_view text);

/// Without their blanks: those by whose result a list of an insertion goes on or ends. "close " is
/// none of them, as it fails by intent, and neither are the programs.
[[nodiscard]] std::vector<std::string_view> KeywordsThatMayFail();

struct ApplicationParts {
  std::string_view program;
  std::string_view arguments;
};
/// A program in quotes ends at the next quote and its arguments follow behind any blanks; any other
/// ends at the first blank, right behind which its arguments begin.
[[nodiscard]] ApplicationParts SplitApplication(std::string_view line);

/// Runs the command that the head of `text` names (letter case ignored), anything else as a program
/// with its arguments. Returns its success; a started program or thread is one. A simulated event
/// never reaches for a card.
bool ExecuteCommand(CardReader& card, const WatchEvent& event, std::string_view text);

/// Runs a command of a removal. False when that is to be done again, at another time: memory ran
/// out, or the system had no room for the process, the thread or the new text of a file.
[[nodiscard]] bool RunRemoveCommand(CardReader& card, const WatchEvent& event,
                                    std::string_view text);

/// Starts `program` (empty: the arguments are the whole command line) without waiting. A program of
/// 256 characters and more is refused; `show` has no effect on this platform. Gives the process id,
/// which is 0 on this platform, so that nothing enters the terminate list; nothing when the program
/// was not started.
std::optional<std::uint64_t> StartCommandProcess(const std::string& program,
                                                 std::string_view arguments, bool show);

}  // namespace qixx::watch
