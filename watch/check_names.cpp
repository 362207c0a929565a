#include "watch/check_names.h"

#include <algorithm>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "config/migration.h"
#include "runtime/text.h"
#include "watch/configuration.h"
#include "watch/known_entries.h"

namespace qixx::watch {
namespace {

bool LooksLikeEventSection(std::string_view name) {
  if (!runtime::StartsWithNoCase(name, "Watch ")) return false;
  const std::string_view event = name.substr(name.rfind(' '));
  return runtime::EqualsNoCase(event, " Insert") || runtime::EqualsNoCase(event, " Remove");
}

/// Sections of other programs of the suite, which have the same file.
bool IsSuiteSection(std::string_view name) {
  if (runtime::EqualsNoCase(name, "Dialog Presentation")) return true;
  if (runtime::StartsWithNoCase(name, "SmartCardProfile ")) return true;
  return std::ranges::any_of(config::kSectionAliases, [name](const config::SectionAlias& alias) {
    return runtime::EqualsNoCase(name, alias.newName) || runtime::EqualsNoCase(name, alias.oldName);
  });
}

/// Entries of a section that stand in the table.
std::vector<KnownEntry> KnownEntriesOf(std::string_view section) {
  std::vector<KnownEntry> entries;
  for (const KnownEntry& known : kKnownEntries) {
    if (runtime::EqualsNoCase(known.section, section)) entries.push_back(known);
  }
  return entries;
}

class NameCheck {
 public:
  NameCheck(std::span<const CheckedWatcher> watchers, Mistakes& mistakes)
      : hasWatchers_(!watchers.empty()),
        sections_(NamesOf(kKnownEntries, &KnownEntry::section)),
        mistakes_(mistakes) {
    for (const CheckedWatcher& watcher : watchers) {
      std::optional<EventSections> sections = EventSectionsOf(watcher.record);
      if (!sections) continue;
      eventSections_.push_back(std::move(sections->insert));
      eventSections_.push_back(std::move(sections->remove));
    }
    eventNames_ = NamesOf(eventSections_, std::identity());
    sections_.insert(sections_.end(), eventNames_.begin(), eventNames_.end());
    for (const CheckedWatcher& watcher : watchers) sections_.push_back(watcher.record.section);
  }

  void CheckSection(CheckedRole role, const CheckedFile& file, const CheckedSection& section) {
    const Report report(file.At(section.line), mistakes_);
    if (role == CheckedRole::kSystem) CheckWatched(report, section.name);
    if (!Contains(sections_, section.name)) return CheckUnread(report, section.name);
    const std::vector<KnownEntry> known = KnownEntriesOf(section.name);
    const bool isEvent = Contains(eventNames_, section.name);
    const bool isOfUser = !isEvent && std::ranges::any_of(known, &KnownEntry::ofUser);
    const bool isCommand = runtime::EqualsNoCase(section.name, kCommandSection);
    if (role == CheckedRole::kUser && !isOfUser) {
      AddMisplaced(report, section.name, "from the user's file");
    } else if (role == CheckedRole::kBeside && !isCommand) {
      AddMisplaced(report, section.name, "beside the program");
    } else if (!isEvent) {
      CheckEntries(file, section, known, isCommand);
    }
  }

 private:
  /// A file without all of these sections is one for other programs, or for the bridge.
  void CheckWatched(const Report& report, std::string_view section) {
    const bool isOfWatch =
        runtime::EqualsNoCase(section, kCommandSection) || LooksLikeEventSection(section);
    if (hasWatchers_ || !isOfWatch || std::exchange(isUnwatchedTold_, true)) return;
    report.Add("nothing is watched", "an entry 'Watch' in section 'Command' is meant");
  }
  void CheckUnread(const Report& report, std::string_view section) {
    const bool isEvent = LooksLikeEventSection(section);
    if (IsSuiteSection(section) || (isEvent && !hasWatchers_)) return;
    report.Add("nothing reads section " + Quoted(section),
               MeantName(section, sections_, isEvent ? "no watcher of that name is started" : ""));
  }
  static void AddMisplaced(const Report& report, std::string_view section, const char* where) {
    report.Add("section " + Quoted(section) + " is not read " + where,
               "it belongs into the system's file");
  }

  /// A section that is not in the table is the watcher's own.
  void CheckEntries(const CheckedFile& file, const CheckedSection& section,
                    std::vector<KnownEntry> known, bool isCommand) {
    // The other sections belong to the whole suite, whose programs have entries of their own.
    const bool isOwn = known.empty() || isCommand;
    if (known.empty()) known.push_back({section.name, kBackgroundEntry, kMaxOption, false});
    if (known.front().entry == kNumberedEntries) return CheckUnreached(file, section, mistakes_);
    const std::vector<std::string_view> names = NamesOf(known, &KnownEntry::entry);
    for (const CheckedEntry& entry : section.entries.all) {
      if (entry.name.starts_with('#')) continue;
      const auto row = std::ranges::find_if(
          known, [&entry](const KnownEntry& candidate) { return candidate.IsNamed(entry.name); });
      if (row != known.end()) {
        // The values of that section are read, and measured, one by one.
        if (isCommand) continue;
        CheckLength(file.At(entry.line), entry.name, entry.value, row->maxLength, mistakes_);
        continue;
      }
      const std::string_view nearest = NearestName(entry.name, names);
      if (!isOwn && nearest.empty()) continue;
      // Blanks beside a name are a mistake of their own.
      if (runtime::EqualsNoCase(nearest,
                                runtime::DropTrailingBlanks(runtime::SkipBlanks(entry.name))))
        continue;
      mistakes_.Add(
          file.At(entry.line),
          "nothing reads entry " + Quoted(entry.name) + " of section " + Quoted(section.name),
          nearest.empty() ? "" : Quoted(nearest) + " is meant");
    }
  }

  bool hasWatchers_;
  bool isUnwatchedTold_ = false;
  std::vector<std::string> eventSections_;
  std::vector<std::string_view> eventNames_;
  std::vector<std::string_view> sections_;  ///< all that are read
  Mistakes& mistakes_;
};

}  // namespace

void CheckNames(const CheckedConfiguration& configuration, std::span<const CheckedWatcher> watchers,
                Mistakes& mistakes) {
  NameCheck check(watchers, mistakes);
  for (const CheckedRole role : kCheckedRoles) {
    const CheckedFile& file = configuration.File(role);
    for (const CheckedSection& section : file.Sections()) check.CheckSection(role, file, section);
  }
}

}  // namespace qixx::watch
