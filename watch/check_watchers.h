// The watchers that a configuration starts: which there are, and what is wrong with the commands of
// each.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "watch/check_file.h"
#include "watch/check_report.h"
#include "watch/event.h"
#include "watch/options.h"

namespace qixx::watch {

struct CheckedWatcher {
  std::string name;      ///< of an extra watcher; empty for the first one
  Place place;           ///< of its watch command
  std::string line;      ///< where that command stands, with its conditions
  CWatchOptions record;  ///< what becomes of that command
};

/// The first watcher, then the extra ones as they are started; none without a watch command. Their
/// watch commands are checked.
[[nodiscard]] std::vector<CheckedWatcher> CollectWatchers(CheckedConfiguration& configuration,
                                                          Mistakes& mistakes);

// --- what they run ------------------------------------------------------------------------------

/// More commands of a list are not looked at.
inline constexpr std::size_t kMaxCheckedList = 2000;

struct NumberedCommand {
  std::size_t number = 1;
  std::string text;  ///< cut as the service cuts it, never empty
  std::string line;  ///< where it stands, with its conditions
};

/// What an event runs.
struct EventList {
  std::vector<NumberedCommand> commands;
  bool hasEntries = false;  ///< also when they are all empty
  Mistakes mistakes;
};

/// The lists of a configuration, each of which is read and checked once: many watchers may share
/// one.
class EventLists {
 public:
  explicit EventLists(CheckedConfiguration& configuration) : configuration_(configuration) {}

  /// The list of an event section; the reference holds as long as this object.
  [[nodiscard]] const EventList& Read(EventKind kind, const std::string& section);

 private:
  void Fill(EventKind kind, const std::string& section, EventList& list);

  CheckedConfiguration& configuration_;
  /// By name, whose letter case counts in the environment.
  std::map<std::string, EventList> lists_;
};

/// Tells of entries that no program reads because a number in front of theirs is missing.
void CheckUnreached(const CheckedFile& file, const CheckedSection& section, Mistakes& mistakes);

/// Checks what a watcher would run.
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
