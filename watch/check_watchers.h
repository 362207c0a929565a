// The watchers that a configuration starts: which there are, and what is wrong with the commands of
// each.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "watch/check_lists.h"
#include "watch/check_report.h"
#include "watch/check_values.h"
#include "watch/options.h"

namespace qixx::watch {

struct CheckedWatcher {
  std::string name;      ///< of an extra watcher; empty for the first one
  Place place;           ///< of its watch command
  CWatchOptions record;  ///< what becomes of that command
};

/// The first watcher, then the extra ones as they are started; none without a watch command. Their
/// watch commands are checked.
[[nodiscard]] std::vector<CheckedWatcher> CollectWatchers(CheckedConfiguration& configuration,
                                                          Mistakes& mistakes);

/// What a watcher would run.
void CheckWatcher(const CheckedWatcher& watcher, CheckedConfiguration& configuration,
                  EventLists& lists, Mistakes& mistakes);

struct EventSections {
  std::string insert;
  std::string remove;
};
/// Those of the watcher's name, in whatever form it has its commands; nothing when the name is too
/// long.
[[nodiscard]] std::optional<EventSections> EventSectionsOf(const CWatchOptions& record);

struct DirectCommand {
  std::string_view text;  ///< a view into the record
  bool onRemoval = false;
};
/// Of the direct form; nothing when what stands there are options in disorder.
[[nodiscard]] std::optional<DirectCommand> DirectCommandOf(const CWatchOptions& record);

}  // namespace qixx::watch
