#include "watch/check_watchers.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "watch/check_command.h"
#include "watch/check_options.h"
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
    if (const CheckedFile* const beside = configuration_.File(CheckedRole::kBeside)) {
      const CheckedEntry* const entry = beside->Find(kCommandSection, kWatchEntry);
      if (entry != nullptr && !entry->value.empty()) {
        return CheckedValue{std::string(entry->value), beside->At(entry->line)};
      }
    }
    std::optional<CheckedValue> value =
        configuration_.Read(kCommandSection, kWatchEntry, kMaxCommandLine, mistakes_);
    if (value && value->text.empty()) return std::nullopt;
    return value;
  }
  void AddExtra(const std::string& name) {
    const bool isKnown = std::ranges::any_of(
        watchers_, [&name](const CheckedWatcher& other) { return other.name == name; });
    if (isKnown) return;
    if (watchers_.size() <= kMaxExtraWatchers) return Add(name, ReadExtraCommand(name));
    if (std::exchange(tooMany_, true)) return;
    mistakes_.Add(watchers_.front().place, "extra watcher " + Quoted(name) + " is not started",
                  "at most " + std::to_string(kMaxExtraWatchers) + " are meant");
  }
  CheckedValue ReadExtraCommand(const std::string& name) {
    const std::string entry = ExtraWatcherEntry(name);
    CheckedValue command{
        ReadFileText(configuration_.Store(), kCommandSection, entry, std::string::npos),
        watchers_.front().place};
    if (command.text.empty()) {
      command.text = UsualExtraCommand(name);
      return command;
    }
    const CheckedFile* const file = configuration_.File(CheckedRole::kSystem);
    const CheckedEntry* const line = file != nullptr ? file->Find(kCommandSection, entry) : nullptr;
    if (line == nullptr) return command;
    command.place = file->At(line->line);
    CheckLength(command.place, entry, command.text, kMaxCommandLine - kChildMark.size(), mistakes_);
    if (command.text.find('"') != std::string::npos) {
      mistakes_.Add(command.place, "double quotes do not reach an extra watcher",
                    "options with quotes belong to the first watcher");
    }
    return command;
  }
  void Add(const std::string& name, CheckedValue command) {
    command.text.resize(std::min(command.text.size(), kMaxCommandLine));
    CheckedWatcher watcher{name, std::move(command.place), {}};
    watcher.record = CheckWatchCommand(watcher.place, command.text, mistakes_);
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

// --- what they run ------------------------------------------------------------------------------

bool HasFirst(CheckedConfiguration& configuration, const std::string& section) {
  const std::optional<std::string> first =
      ReadEventEntry(configuration.Store(), section, 1, kMaxRemoveEntry);
  return first && !first->empty();
}

void CheckSections(const CheckedWatcher& watcher, CheckedConfiguration& configuration,
                   EventLists& lists, Mistakes& mistakes) {
  const std::string& name = watcher.record.section;
  const std::optional<EventSections> sections = EventSectionsOf(watcher.record);
  if (!sections) {
    return mistakes.Add(watcher.place, "watcher " + Quoted(name) + " has a name that is too long",
                        "at most 50 characters are meant");
  }
  const auto& [insert, remove] = *sections;
  if (!HasFirst(configuration, insert) && !HasFirst(configuration, remove)) {
    mistakes.Add(watcher.place, "watcher " + Quoted(name) + " has nothing to run",
                 "an entry 1 in section " + Quoted(insert) + " or " + Quoted(remove) + " is meant");
  }
  mistakes.Add(lists.Read(EventKind::kInsert, insert).mistakes);
  mistakes.Add(lists.Read(EventKind::kRemove, remove).mistakes);
}

void CheckDirect(const CheckedWatcher& watcher, Mistakes& mistakes) {
  const std::optional<DirectCommand> command = DirectCommandOf(watcher.record);
  if (command) {
    CheckCommand(watcher.place, {EventKind::kInsert, false}, command->text, mistakes);
  }
}

void CheckKeyword(const CheckedWatcher& watcher, Mistakes& mistakes) {
  const CWatchOptions& record = watcher.record;
  if (record.program.empty()) return;
  CheckProgramOption(watcher.place, record.program, record.arguments, mistakes);
  if (!record.configFile.empty()) CheckTarget(watcher.place, record.configFile, mistakes);
}

}  // namespace

std::vector<CheckedWatcher> CollectWatchers(CheckedConfiguration& configuration,
                                            Mistakes& mistakes) {
  return Collection(configuration, mistakes).Take();
}

void CheckWatcher(const CheckedWatcher& watcher, CheckedConfiguration& configuration,
                  EventLists& lists, Mistakes& mistakes) {
  switch (FormOf(watcher.record)) {
    case CommandForm::kSection:
      return CheckSections(watcher, configuration, lists, mistakes);
    case CommandForm::kDirect:
      return CheckDirect(watcher, mistakes);
    case CommandForm::kKeyword:
      return CheckKeyword(watcher, mistakes);
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
  const bool insertOnly = text.starts_with('~');
  if (insertOnly) text.remove_prefix(1);
  if (text.starts_with(' ') || text.starts_with('-')) return std::nullopt;
  return DirectCommand{text, !insertOnly};
}

}  // namespace qixx::watch
