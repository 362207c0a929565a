// What the program says to people rather than does for them: the words that may be the first
// argument.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace qixx::watch {

/// The exit code for a word that is none, and for what cannot be read or printed.
inline constexpr int kExitUnable = 2;

/// Answers a first argument that is for people on standard output, or refuses one that begins with
/// "--" in one line on standard error. Gives the exit code; nothing for every other command line.
[[nodiscard]] std::optional<int> AnswerPeople(int argc, const char* const* argv,
                                              std::string_view version);

/// The text of --help.
[[nodiscard]] std::string HelpText();

}  // namespace qixx::watch
