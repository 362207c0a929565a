// Sections whose entries are numbered, under check: the commands of an event, and other lists.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "watch/check_file.h"
#include "watch/check_report.h"
#include "watch/check_values.h"
#include "watch/event.h"

namespace qixx::watch {

/// More commands of a list are not looked at.
inline constexpr std::size_t kMaxCheckedList = 2000;

struct NumberedCommand {
  std::size_t number = 1;
  std::string text;  ///< cut as the service cuts it, never empty
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

  /// The list of an event section, which belongs to this object.
  [[nodiscard]] const EventList& Read(EventKind kind, const std::string& section);

 private:
  [[nodiscard]] EventList ReadNew(EventKind kind, const std::string& section);
  void CheckNumbers(const std::string& section, std::size_t missing, Mistakes& mistakes) const;

  CheckedConfiguration& configuration_;
  /// By name, whose letter case counts in the environment.
  std::map<std::string, EventList> lists_;
};

/// Entries that no program reads because a number in front of theirs is missing.
void CheckNumbered(const CheckedFile& file, const CheckedSection& section, Mistakes& mistakes);

}  // namespace qixx::watch
