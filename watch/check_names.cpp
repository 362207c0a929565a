#include "watch/check_names.h"

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "config/migration.h"
#include "runtime/text.h"
#include "watch/check_file.h"
#include "watch/check_lists.h"
#include "watch/configuration.h"
#include "watch/known_entries.h"

namespace qixx::watch {
namespace {

using Names = std::vector<std::string_view>;

bool Contains(const Names& names, std::string_view name) {
  return std::ranges::any_of(
      names, [name](std::string_view other) { return runtime::EqualsNoCase(name, other); });
}

/// Blanks beside a name are a mistake of their own.
std::string_view WithoutBlanks(std::string_view name) {
  return runtime::DropTrailingBlanks(runtime::SkipBlanks(name));
}

bool LooksLikeEventSection(std::string_view name) {
  return runtime::StartsWithNoCase(name, "Watch ") &&
         (runtime::EqualsNoCase(name.substr(name.rfind(' ')), " Insert") ||
          runtime::EqualsNoCase(name.substr(name.rfind(' ')), " Remove"));
}

/// Sections of other programs of the suite, which have the same file.
bool IsSuiteSection(std::string_view name) {
  if (runtime::EqualsNoCase(name, "Dialog Presentation")) return true;
  if (runtime::StartsWithNoCase(name, "SmartCardProfile ")) return true;
  return std::ranges::any_of(config::SectionAliases(), [name](const config::SectionAlias& alias) {
    return runtime::EqualsNoCase(name, alias.newName) || runtime::EqualsNoCase(name, alias.oldName);
  });
}

bool IsOfUser(std::string_view section) {
  return std::ranges::any_of(kKnownEntries, [section](const KnownEntry& known) {
    return known.ofUser && runtime::EqualsNoCase(known.section, section);
  });
}

/// Entries of a section that stand in the table.
Names KnownNames(std::string_view section) {
  Names names;
  for (const KnownEntry& known : kKnownEntries) {
    if (runtime::EqualsNoCase(known.section, section)) names.push_back(known.entry);
  }
  return names;
}

bool IsKnown(const Names& names, std::string_view entry) {
  return std::ranges::any_of(names, [entry](std::string_view known) {
    return known.ends_with(' ') ? runtime::StartsWithNoCase(entry, known)
                                : runtime::EqualsNoCase(entry, known);
  });
}

std::size_t LimitOf(std::string_view section, std::string_view entry) {
  std::size_t limit = kMaxOption;
  for (const KnownEntry& known : kKnownEntries) {
    if (runtime::EqualsNoCase(known.section, section) &&
        runtime::EqualsNoCase(known.entry, entry)) {
      limit = known.maxLength;
    }
  }
  return limit;
}

class NameCheck {
 public:
  NameCheck(std::span<const CheckedWatcher> watchers, Mistakes& mistakes)
      : hasWatchers_(!watchers.empty()), mistakes_(mistakes) {
    for (const CheckedWatcher& watcher : watchers) {
      std::optional<EventSections> sections = EventSectionsOf(watcher.record);
      if (!sections) continue;
      eventSections_.push_back(std::move(sections->insert));
      eventSections_.push_back(std::move(sections->remove));
    }
    for (const KnownEntry& known : kKnownEntries) sections_.push_back(known.section);
    sections_.insert(sections_.end(), eventSections_.begin(), eventSections_.end());
    for (const CheckedWatcher& watcher : watchers) sections_.push_back(watcher.record.section);
  }

  void Check(CheckedRole role, const CheckedFile& file) {
    for (const CheckedSection& section : file.Sections()) CheckSection(role, file, section);
  }

 private:
  void CheckSection(CheckedRole role, const CheckedFile& file, const CheckedSection& section) {
    const Place place = file.At(section.line);
    if (role == CheckedRole::kSystem) CheckWatched(place, section.name);
    if (!Contains(sections_, section.name)) return CheckUnread(place, section.name);
    const bool isEvent = std::ranges::any_of(eventSections_, [&section](const std::string& event) {
      return runtime::EqualsNoCase(section.name, event);
    });
    if (role == CheckedRole::kUser && (isEvent || !IsOfUser(section.name))) {
      AddMisplaced(place, section.name, "from the user's file");
    } else if (role == CheckedRole::kBeside &&
               !runtime::EqualsNoCase(section.name, kCommandSection)) {
      AddMisplaced(place, section.name, "beside the program");
    } else if (!isEvent) {
      CheckEntries(file, section);
    }
  }
  /// A file without all of these sections is one for other programs, or for the bridge.
  void CheckWatched(const Place& place, std::string_view section) {
    const bool isOfWatch =
        runtime::EqualsNoCase(section, kCommandSection) || LooksLikeEventSection(section);
    if (hasWatchers_ || !isOfWatch || std::exchange(isUnwatchedTold_, true)) return;
    mistakes_.Add(place, "nothing is watched", "an entry 'Watch' in section 'Command' is meant");
  }
  void CheckUnread(const Place& place, std::string_view section) {
    const bool isEvent = LooksLikeEventSection(section);
    if (IsSuiteSection(section) || (isEvent && !hasWatchers_)) return;
    mistakes_.Add(
        place, "nothing reads section " + Quoted(section),
        MeantName(section, sections_, isEvent ? "no watcher of that name is started" : ""));
  }
  void AddMisplaced(const Place& place, std::string_view section, std::string_view where) {
    mistakes_.Add(place, "section " + Quoted(section) + " is not read " + std::string(where),
                  "it belongs into the system's file");
  }

  void CheckEntries(const CheckedFile& file, const CheckedSection& section) {
    Names names = KnownNames(section.name);
    // The other sections belong to the whole suite, whose programs have entries of their own.
    const bool isOwn = names.empty() || runtime::EqualsNoCase(section.name, kCommandSection);
    if (names.empty()) names.push_back(kBackgroundEntry);
    if (names.front() == kNumberedEntries) return CheckNumbered(file, section, mistakes_);
    for (const CheckedEntry& entry : section.entries) {
      if (entry.name.starts_with('#')) continue;
      if (IsKnown(names, entry.name)) {
        CheckKnownLength(file, section, entry);
        continue;
      }
      const std::string_view nearest = NearestName(entry.name, names);
      if (!isOwn && nearest.empty()) continue;
      if (runtime::EqualsNoCase(nearest, WithoutBlanks(entry.name))) continue;
      mistakes_.Add(
          file.At(entry.line),
          "nothing reads entry " + Quoted(entry.name) + " of section " + Quoted(section.name),
          nearest.empty() ? "" : Quoted(nearest) + " is meant");
    }
  }
  void CheckKnownLength(const CheckedFile& file, const CheckedSection& section,
                        const CheckedEntry& entry) {
    // The values of this section are read, and measured, one by one.
    if (runtime::EqualsNoCase(section.name, kCommandSection)) return;
    CheckLength(file.At(entry.line), entry.name, entry.value, LimitOf(section.name, entry.name),
                mistakes_);
  }

  bool hasWatchers_;
  bool isUnwatchedTold_ = false;
  std::vector<std::string> eventSections_;
  Names sections_;  ///< all that are read
  Mistakes& mistakes_;
};

}  // namespace

void CheckNames(const CheckedConfiguration& configuration, std::span<const CheckedWatcher> watchers,
                Mistakes& mistakes) {
  NameCheck check(watchers, mistakes);
  for (const CheckedRole role : kCheckedRoles) {
    if (const CheckedFile* const file = configuration.File(role)) check.Check(role, *file);
  }
}

}  // namespace qixx::watch
