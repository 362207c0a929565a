// The watcher's options record and the parser that fills it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "runtime/text.h"

namespace qixx::watch {

/// Round limit of a watcher without "-n": in practice endless.
inline constexpr std::uint64_t kEndlessRounds = 4294967295;

/// The watcher's section where none is named.
inline constexpr std::string_view kDefaultSection = "Watch";
/// The rest of a watcher whose commands stand in the configuration.
inline constexpr std::string_view kConfigWord = "config";

/// What one watcher does. Zero-filled before the first parse; later parses overlay it and, but for
/// a few fields named in the parser, never clear it.
struct CWatchOptions {
  char registry[runtime::kTextSize];    ///< "-r"; nothing on this platform
  char program[runtime::kTextSize];     ///< "-p": program to start on an event
  char configFile[runtime::kTextSize];  ///< "-c": file that receives the logon values, without "-r"
                                        ///< only
  char arguments[runtime::kTextSize];   ///< "-a"
  char message[runtime::kTextSize];     ///< kept, not read
  char message2[runtime::kTextSize];    ///< kept, not read
  char match[runtime::kTextSize];       ///< which card's certificate counts
  std::uint64_t insertWait;             ///< seconds
  std::uint64_t removeWait;             ///< seconds
  std::uint8_t terminate;
  std::uint8_t recognized;
  std::uint8_t hideInsert;
  std::uint8_t hideRemove;
  std::uint8_t sync;
  char simulate[32];                    ///< non-empty selects the simulation
  char rest[runtime::kTextSize];        ///< text left after the positional options
  char section[runtime::kTextSize];     ///< configuration section of this watcher
  char background[runtime::kTextSize];  ///< value of key "Background" in that section
  std::uint64_t roundLimit;
  std::uint8_t waitFlag;    ///< kept, not read
  std::uint64_t processId;  ///< of the keyword form's program
};

/// Overlays `record` with the options of `text`. Returns true when text is left after the options.
bool ParseWatchOptions(std::string_view text, CWatchOptions& record);

/// Looks `name` (letter case ignored) up anywhere in `text`; it counts only before a blank or the
/// end. Copies the value behind it, cut to the area: a quoted value to its closing quote, nothing
/// for a value that begins with '-', else the text up to the next blank. Returns whether the option
/// was found; an empty `out` area asks for that alone.
bool GetOptionValue(std::string_view text, std::string_view name, std::span<char> out);

}  // namespace qixx::watch
