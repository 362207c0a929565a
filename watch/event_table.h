// Where an event's commands come from: the form of the watcher and, for the section form, the
// numbered entries of its event sections in the product configuration.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "config/store.h"
#include "watch/event.h"
#include "watch/options.h"

namespace qixx::watch {

/// Longest name of an event section: watchers whose name is longer than 50 characters have no
/// commands.
inline constexpr std::size_t kMaxEventSection = 63;
/// Longest command of an insert and of a removal; longer entries are cut.
inline constexpr std::size_t kMaxInsertEntry = 511;
inline constexpr std::size_t kMaxRemoveEntry = 255;

/// The three sources of event commands.
enum class CommandForm {
  kSection,  ///< entries of the product configuration
  kDirect,   ///< one command on the command line
  kKeyword,  ///< a program and a configuration file
};
[[nodiscard]] CommandForm FormOf(const CWatchOptions& record);
/// In front of a direct command that runs on insert only.
inline constexpr char kInsertOnlyMark = '~';

/// The watcher section name ("Watch" itself, else "Watch " and the name) and " Insert" or
/// " Remove"; nothing when that is too long. Always traces the result.
[[nodiscard]] std::optional<std::string> BuildEventSection(EventKind kind, std::string_view name);

/// Entry `number` (from 1) of an event section, cut to `maxLength`; a present but empty entry is an
/// empty text. A value from the environment counts.
[[nodiscard]] std::optional<std::string> ReadEventEntry(config::CConfig& config,
                                                        const std::string& section, unsigned number,
                                                        std::size_t maxLength);

/// Whether an event section has a first entry that is not empty.
[[nodiscard]] bool HasFirstEntry(config::CConfig& config,
                                 const std::optional<std::string>& section);

/// Whether the watcher has anything to run. Of its event sections only the first entries count.
[[nodiscard]] bool HasEventCommands(const CWatchOptions& record);

/// Says on standard error why it has nothing.
void NotifyWithoutCommands(const CWatchOptions& record);

/// Whether the event section of the watcher holds a command that is more than an ending; of either
/// kind, whatever the name says.
[[nodiscard]] bool HasOrdinaryRemoveCommand(config::CConfig& config, std::string_view name,
                                            EventKind kind);
/// Whether a command text is more than an ending; one that begins with "config" is as ordinary as
/// the watcher's remove section.
[[nodiscard]] bool IsOrdinaryCommand(config::CConfig& config, std::string_view name,
                                     std::string_view text);

}  // namespace qixx::watch
