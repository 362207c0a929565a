// The watcher's options record and the parser that fills it.
//
// Nothing here reads a file or an environment variable, and only std::bad_alloc is thrown.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "runtime/text.h"

namespace qixx::watch {

/// Longest value of an option; a longer one is cut. The name of a file is not: it is kept as it
/// stands, and whoever uses it refuses it, since a piece of it would name another file.
inline constexpr std::size_t kMaxOption = runtime::kMaxText;
/// Longest name of a simulated event.
inline constexpr std::size_t kMaxSimulate = 31;

/// Round limit of a watcher without "-n": in practice endless.
inline constexpr std::uint64_t kEndlessRounds = 4294967295;

/// The watcher's section where none is named.
inline constexpr std::string_view kDefaultSection = "Watch";
/// That of the logon variant.
inline constexpr std::string_view kLogonSection = "Logon";
/// The rest of a watcher whose commands stand in the configuration.
inline constexpr std::string_view kConfigWord = "config";

/// What one watcher does. Empty before the first parse; later parses overlay it and, but for a few
/// fields named in the parser, never clear it. Texts hold kMaxOption characters at most, but for
/// the program and the file.
struct CWatchOptions {
  std::string registry;          ///< "-r"; nothing on this platform
  std::string program;           ///< "-p": program to start on an event
  std::string configFile;        ///< "-c": file that receives the logon values, without "-r" only
  std::string arguments;         ///< "-a"
  std::string message;           ///< kept, not read
  std::string message2;          ///< kept, not read
  std::string match;             ///< which card's certificate counts
  std::uint64_t insertWait = 0;  ///< seconds
  std::uint64_t removeWait = 0;  ///< seconds
  bool terminate = false;
  bool recognized = false;
  bool hideInsert = false;
  bool hideRemove = false;
  bool sync = false;
  std::string simulate;    ///< non-empty selects the simulation; kMaxSimulate characters
  std::string rest;        ///< text left after the positional options
  std::string section;     ///< configuration section of this watcher
  std::string background;  ///< value of key "Background" in that section; not parsed here
  std::uint64_t roundLimit = 0;
  bool waitFlag = false;        ///< kept, not read
  std::uint64_t processId = 0;  ///< of the keyword form's program
};

/// Overlays `record` with the options of `text`. Returns true when text is left after the options.
bool ParseWatchOptions(std::string_view text, CWatchOptions& record);

/// The options that are looked up in commands, whose texts may hold values of a card.
inline constexpr std::array<std::string_view, 4> kCommandOptions = {"-match", "-registry",
                                                                    "-config", "-restore"};
/// Whether an option could begin at `place` of a command: not within a word, whose dashes are its
/// own.
[[nodiscard]] bool IsOptionPlace(std::string_view text, std::size_t place);
/// The value of one of them (what follows "-restore" is none), cut to `maxLength`: a quoted value
/// to its closing quote, nothing for a value that begins with '-', else the text up to the next
/// blank. The name (letter case ignored) counts only before a blank or the end; within a word, or
/// inside double quotes, which hold a value together, no option is looked for.
[[nodiscard]] std::optional<std::string> GetCommandOption(std::string_view text,
                                                          std::string_view name,
                                                          std::size_t maxLength = kMaxOption);
/// As long as a line allows; see kMaxOption.
inline constexpr std::size_t kWholeOption = std::string_view::npos;

}  // namespace qixx::watch
