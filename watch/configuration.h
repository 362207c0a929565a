// The product configuration, as the watch reads it.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "config/store.h"

namespace qixx::watch {

/// The section of the configured commands of watchers, and the entry of the first of them; those of
/// extra watchers have a blank and a name behind it.
inline constexpr std::string_view kCommandSection = "Command";
inline constexpr std::string_view kWatchEntry = "Watch";
/// The entry of a watcher's section with arguments for the suite's main program.
inline constexpr std::string_view kBackgroundEntry = "Background";

struct UnreadableFile {
  std::string why;
  bool isMissing = false;  ///< there is no such file
};
/// Why a configuration file of this path cannot be read; none when it can.
[[nodiscard]] std::optional<UnreadableFile> WhyUnreadable(const std::string& path);
/// Why the product configuration does not say something: it cannot be read, or there is no `what`.
[[nodiscard]] std::string WhyMissing(std::string_view what);

/// Opens the product configuration read-only. False when there is none, or none that holds a text.
[[nodiscard]] bool LoadProductConfiguration(config::CConfig& config);

/// Whether there is one that holds a text. Nothing is traced of one that is missing or empty.
[[nodiscard]] bool HasProductConfiguration();

/// What a file says, cut to `maxLength`; a value from the environment does not count and hides that
/// of the file. Empty when there is none.
[[nodiscard]] std::string ReadFileText(config::CConfig& config, std::string_view section,
                                       std::string_view entry, std::size_t maxLength);
/// The same of the product configuration, opened for this one question.
[[nodiscard]] std::string ReadProductText(std::string_view section, std::string_view entry,
                                          std::size_t maxLength);

/// Makes the configuration the source of the runtime's settings; called once at start.
void ConnectRuntimeSettings();

}  // namespace qixx::watch
