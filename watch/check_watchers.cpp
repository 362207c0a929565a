#include "watch/check_watchers.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <utility>

#include "runtime/text.h"
#include "watch/check_command.h"
#include "watch/check_options.h"
#include "watch/command.h"
#include "watch/configuration.h"
#include "watch/event_table.h"
#include "watch/extra_watchers.h"
#include "watch/watch_main.h"

namespace qixx::watch {
namespace {

// --- which there are ----------------------------------------------------------------------------

class Collection {
 public:
  Collection(CheckedConfiguration& configuration, Mistakes& mistakes)
      : configuration_(configuration), mistakes_(mistakes) {}

  std::vector<CheckedWatcher> Take() {
    if (std::optional<CheckedValue> first = ReadFirstCommand()) Add("", *std::move(first));
    for (std::size_t next = 0; next < named_.size(); ++next) AddExtra(std::string(named_[next]));
    return std::move(watchers_);
  }

 private:
  /// The file beside the program comes before the system's.
  std::optional<CheckedValue> ReadFirstCommand() {
    const CheckedFile& beside = configuration_.File(CheckedRole::kBeside);
    const CheckedEntry* const entry = beside.Find(kCommandSection, kWatchEntry);
    if (entry != nullptr && !entry->value.empty()) {
      const std::string value(entry->value);
      return CheckedValue{value, beside.At(entry->line), value};
    }
    std::optional<CheckedValue> value =
        configuration_.Read(kCommandSection, kWatchEntry, kMaxCommandLine, mistakes_);
    if (value && value->text.empty()) return std::nullopt;
    return value;
  }
  void AddExtra(const std::string& name) {
    if (std::ranges::find(watchers_, name, &CheckedWatcher::name) != watchers_.end()) return;
    if (watchers_.size() <= kMaxExtraWatchers) return Add(name, ReadExtraCommand(name));
    if (std::exchange(tooMany_, true)) return;
    mistakes_.Add(watchers_.front().place, "extra watcher " + Quoted(name) + " is not started",
                  "at most " + std::to_string(kMaxExtraWatchers) + " are meant");
  }
  CheckedValue ReadExtraCommand(const std::string& name) {
    const std::string entry = ExtraWatcherEntry(name);
    CheckedValue command{
        ReadFileText(configuration_.Store(), kCommandSection, entry, std::string::npos),
        watchers_.front().place,
        {}};
    if (command.text.empty()) command.text = UsualExtraCommand(name);
    command.line = command.text;
    const CheckedFile& file = configuration_.System();
    const CheckedEntry* const line = file.Find(kCommandSection, entry);
    if (line == nullptr) return command;
    command.place = file.At(line->line);
    command.line = line->value;
    CheckLength(command.place, entry, command.text, kMaxCommandLine - kChildMark.size(), mistakes_);
    if (command.text.find('"') != std::string::npos) {
      mistakes_.Add(command.place, "double quotes do not reach an extra watcher",
                    "options with quotes belong to the first watcher");
    }
    return command;
  }
  void Add(const std::string& name, CheckedValue command) {
    command.text.resize(std::min(command.text.size(), kMaxCommandLine));
    CheckedWatcher watcher{name, std::move(command.place), std::move(command.line), {}};
    watcher.record = CheckWatchCommand({watcher.place, mistakes_, watcher.line}, command.text);
    std::ranges::move(ExtraWatcherNames(SplitConfigRest(watcher.record)),
                      std::back_inserter(named_));
    watchers_.push_back(std::move(watcher));
  }

  CheckedConfiguration& configuration_;
  Mistakes& mistakes_;
  std::vector<CheckedWatcher> watchers_;
  std::vector<std::string> named_;  ///< extra watchers, in the order in which they are started
  bool tooMany_ = false;
};

// --- numbered entries ---------------------------------------------------------------------------

bool IsListNumber(std::string_view name) {
  const std::uint64_t number = runtime::ParseDecimal(name);
  return number != 0 && std::to_string(number) == name;
}

/// Behind the end of a list nothing is reached.
void CheckEnd(const CheckedFile& file, const CheckedEntry& entry, std::uint64_t missing,
              Mistakes& mistakes) {
  if (runtime::ParseDecimal(entry.name) <= missing) return;
  mistakes.Add(file.At(entry.line), "entry " + Quoted(entry.name) + " is never reached",
               "the list ends at the missing '" + std::to_string(missing) + "'");
}

/// What stands behind the end of an event's list, or is no number.
void CheckListEntries(const CheckedFile& file, const std::string& section, std::size_t missing,
                      Mistakes& mistakes) {
  const CheckedSection* const held = file.Find(section);
  if (held == nullptr) return;
  for (const CheckedEntry& entry : held->entries.all) {
    const std::string_view name = entry.name;
    if (name.starts_with('#')) continue;
    if (name.starts_with(' ') || name.ends_with(' ')) continue;  // said with the blank
    if (IsListNumber(name)) {
      CheckEnd(file, entry, missing, mistakes);
    } else {
      mistakes.Add(file.At(entry.line), "entry " + Quoted(name) + " is not read",
                   "numbers from 1 are meant");
    }
  }
}

// --- what they run ------------------------------------------------------------------------------

void CheckSections(const CheckedWatcher& watcher, CheckedConfiguration& configuration,
                   EventLists& lists, Mistakes& mistakes) {
  const std::string name = Quoted(watcher.record.section);
  const std::optional<EventSections> sections = EventSectionsOf(watcher.record);
  if (!sections) {
    return mistakes.Add(watcher.place, "watcher " + name + " has a name that is too long",
                        "at most 50 characters are meant");
  }
  const auto& [insert, remove] = *sections;
  config::CConfig& store = configuration.Store();
  if (!HasFirstEntry(store, insert) && !HasFirstEntry(store, remove)) {
    mistakes.Add(watcher.place, "watcher " + name + " has nothing to run",
                 "an entry 1 in section " + Quoted(insert) + " or " + Quoted(remove) + " is meant");
  }
  if (runtime::EqualsNoCase(watcher.record.section, kLogonSection)) {
    mistakes.Add(watcher.place, "watcher " + name + " ends at once",
                 "another name is meant: this platform does not tell who is logged on");
  }
  mistakes.Add(lists.Read(EventKind::kInsert, insert).mistakes);
  mistakes.Add(lists.Read(EventKind::kRemove, remove).mistakes);
}

}  // namespace

std::vector<CheckedWatcher> CollectWatchers(CheckedConfiguration& configuration,
                                            Mistakes& mistakes) {
  return Collection(configuration, mistakes).Take();
}

const EventList& EventLists::Read(EventKind kind, const std::string& section) {
  const auto [list, isNew] = lists_.try_emplace(section);
  if (isNew) Fill(kind, section, list->second);
  return list->second;
}

void EventLists::Fill(EventKind kind, const std::string& section, EventList& list) {
  const bool isInsert = kind == EventKind::kInsert;
  const std::size_t maxLength = isInsert ? kMaxInsertEntry : kMaxRemoveEntry;
  std::optional<std::size_t> failing;
  for (std::size_t number = 1; number <= kMaxCheckedList; ++number) {
    std::optional<CheckedValue> value =
        configuration_.Read(section, std::to_string(number), maxLength, list.mistakes);
    if (!value) return CheckListEntries(configuration_.System(), section, number, list.mistakes);
    list.hasEntries = true;
    const Report report(std::move(value->place), list.mistakes, value->line);
    std::string command = std::move(value->text);
    command.resize(std::min(command.size(), maxLength));
    if (command.empty()) continue;
    if (isInsert && failing) {
      report.Add("the command is never run, for entry '" + std::to_string(*failing) +
                     "' fails and ends the list",
                 "it belongs in front of that");
    }
    CheckCommand(report, {kind, isInsert}, command);
    if (SplitCommand(kind, command).kind == CommandKind::kFailure && !failing) failing = number;
    list.commands.push_back({number, std::move(command), std::move(value->line)});
  }
  list.mistakes.Add(configuration_.System().At(1),
                    "the list " + Quoted(section) + " has more commands than are checked",
                    "the first " + std::to_string(kMaxCheckedList) + " were");
}

void CheckUnreached(const CheckedFile& file, const CheckedSection& section, Mistakes& mistakes) {
  std::uint64_t missing = 1;
  while (section.entries.Find(std::to_string(missing)) != nullptr) ++missing;
  for (const CheckedEntry& entry : section.entries.all) {
    if (IsListNumber(entry.name)) CheckEnd(file, entry, missing, mistakes);
  }
}

void CheckWatcher(const CheckedWatcher& watcher, CheckedConfiguration& configuration,
                  EventLists& lists, Mistakes& mistakes) {
  const Report report(watcher.place, mistakes, watcher.line);
  switch (FormOf(watcher.record)) {
    case CommandForm::kSection:
      return CheckSections(watcher, configuration, lists, mistakes);
    case CommandForm::kDirect:
      if (const std::optional<DirectCommand> command = DirectCommandOf(watcher.record)) {
        CheckCommand(report, {EventKind::kInsert, false}, command->text);
      }
      return;
    case CommandForm::kKeyword:
      return CheckKeywordCommand(report, watcher.record);
  }
}

std::optional<EventSections> EventSectionsOf(const CWatchOptions& record) {
  std::optional<std::string> insert = BuildEventSection(EventKind::kInsert, record.section);
  std::optional<std::string> remove = BuildEventSection(EventKind::kRemove, record.section);
  if (!insert || !remove) return std::nullopt;
  return EventSections{*std::move(insert), *std::move(remove)};
}

std::optional<DirectCommand> DirectCommandOf(const CWatchOptions& record) {
  std::string_view text = record.rest;
  const bool insertOnly = text.starts_with(kInsertOnlyMark);
  if (insertOnly) text.remove_prefix(1);
  if (text.starts_with(' ') || text.starts_with('-')) return std::nullopt;
  return DirectCommand{text, !insertOnly};
}

}  // namespace qixx::watch
