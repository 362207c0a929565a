// The card library of a configuration under check. It is not loaded.
#pragma once

#include <cstddef>
#include <string>

#include "watch/check_file.h"
#include "watch/check_report.h"

namespace qixx::watch {

/// The directory that the library stands in, with a '/' at its end. Where there is none as the
/// configuration says, that is a mistake.
[[nodiscard]] std::string CheckLibraryDirectory(CheckedConfiguration& configuration,
                                                Mistakes& mistakes);

/// How many readers there are whose events confuse a watcher with "-sync": 0 for a single one, and
/// behind the bridge. `devices` is where the system lists its USB devices.
[[nodiscard]] std::size_t CountConfusingReaders(const std::string& devices,
                                                const std::string& directory);

}  // namespace qixx::watch
