// Running one command text.
//
// The head of a text picks the kind of command: a program to start, a thread of its own, a library
// to call, logon values to write, a document to open. All operations may be called from any thread.
// Secrets in command texts do not reach the trace. Only std::bad_alloc is thrown.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "watch/card_reader.h"
#include "watch/event.h"

namespace qixx::watch {

/// Runs the command that the head of `text` names (letter case ignored), anything else as a program
/// with its arguments. Returns its success; a started program or thread is one. A simulated event
/// never reaches for a card.
bool ExecuteCommand(CardReader& card, const WatchEvent& event, std::string_view text);

/// Starts `program` (empty: the arguments are the whole command line) without waiting. A program of
/// 256 characters and more is refused; `show` has no effect on this platform. Gives the process id,
/// which is 0 on this platform, so that nothing enters the terminate list; nothing when the program
/// was not started.
std::optional<std::uint64_t> StartCommandProcess(const std::string& program,
                                                 std::string_view arguments, bool show);

}  // namespace qixx::watch
