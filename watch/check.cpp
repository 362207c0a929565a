#include "watch/check.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "config/migration.h"
#include "config/store.h"
#include "runtime/files.h"
#include "runtime/loader.h"
#include "runtime/product.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "watch/check_command.h"
#include "watch/check_file.h"
#include "watch/check_options.h"
#include "watch/check_report.h"
#include "watch/command.h"
#include "watch/configuration.h"
#include "watch/event_table.h"
#include "watch/extra_watchers.h"
#include "watch/known_entries.h"
#include "watch/people.h"
#include "watch/watch_main.h"

namespace qixx::watch {
namespace {

/// More commands of a list are not looked at: finding each takes a walk over the file.
constexpr std::size_t kMaxCheckedList = 2000;
constexpr std::string_view kInstallSection = "Install";
constexpr std::string_view kTraceSection = "Trace";
constexpr std::string_view kTraceCallSection = "Trace Call";

/// What a file is to the service.
enum class FileRole { kSystem, kUser, kBeside };

struct Watcher {
  std::string name;  ///< of an extra watcher; empty for the first one
  Place place;
  CWatchOptions record;
  std::vector<std::string> extras;
};

bool IsListNumber(std::string_view name) {
  const std::uint64_t number = runtime::ParseDecimal(name);
  return number != 0 && std::to_string(number) == name;
}

bool IsEventSection(std::string_view name) {
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

std::string FolderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

bool IsFolder(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

/// USB devices of the class of card readers.
std::size_t CountReaders(const std::string& devices) {
  std::size_t count = 0;
  DIR* const directory = ::opendir(devices.c_str());
  if (directory == nullptr) return 0;
  while (const dirent* const entry = ::readdir(directory)) {
    const std::string path = devices + "/" + entry->d_name + "/bInterfaceClass";
    if (runtime::ReadWholeFile(path).value_or("").starts_with("0b")) ++count;
  }
  ::closedir(directory);
  return count;
}

/// One configuration: a file of each role, or the system's alone.
class ConfigurationCheck {
 public:
  ConfigurationCheck(const std::string& devices, CheckResult& result)
      : devices_(devices), result_(result) {}

  /// Takes the file; false when it cannot be read.
  bool Take(FileRole role, const std::string& path) {
    CheckedFile& file = FileOf(role).emplace();
    const std::string fault = file.Load(path);
    if (!fault.empty()) {
      result_.errors.append("qixxwatch: ").append(Shown(path));
      result_.errors.append(" cannot be read: ").append(fault).append(1, '\n');
      result_.exitCode = kExitUnable;
      FileOf(role).reset();
      return false;
    }
    if (role == FileRole::kSystem) static_cast<void>(store_.OpenItem(false, path));
    return true;
  }
  void SetReason(std::string reason) { reason_ = std::move(reason); }

  void Run() {
    for (const FileRole role : {FileRole::kBeside, FileRole::kUser, FileRole::kSystem}) {
      if (FileOf(role)) FileOf(role)->CheckLines(mistakes_);
    }
    CollectWatchers();
    for (const FileRole role : {FileRole::kBeside, FileRole::kUser, FileRole::kSystem}) {
      if (FileOf(role)) CheckNames(*FileOf(role), role);
    }
    CheckTrace();
    CheckLibrary();
    std::string summary = DescribeFiles();
    for (const Watcher& watcher : watchers_) CheckWatcher(watcher, summary);
    if (watchers_.empty() && FileOf(FileRole::kSystem))
      summary += "Nothing is watched: no entry Watch in section Command.\n";
    result_.output += mistakes_.Text() + summary;
    if (mistakes_.Count() != 0) result_.exitCode = std::max(result_.exitCode, 1);
  }

 private:
  std::optional<CheckedFile>& FileOf(FileRole role) {
    return files_[static_cast<std::size_t>(role)];
  }

  // --- values -----------------------------------------------------------------------------------

  struct Value {
    std::string text;
    Place place;
  };

  /// A value as the service gets it, but not cut; one from the environment that is too long is none
  /// for the service either.
  std::optional<Value> Read(const std::string& section, const std::string& entry,
                            std::size_t maxLength) {
    std::optional<config::ConfigValue> value = store_.GetString(section, entry, std::string::npos);
    if (!value) return std::nullopt;
    if (value->origin == config::ConfigOrigin::kEnvironment) {
      Place place{std::string(runtime::Product().prefix) + ":" + section + ":" + entry, 1};
      if (value->text.size() <= maxLength) return Value{std::move(value->text), std::move(place)};
      mistakes_.Add(place,
                    "the value has " + std::to_string(value->text.size()) +
                        " characters and counts for nothing",
                    "at most " + std::to_string(maxLength) + " are meant");
      return std::nullopt;
    }
    const std::optional<CheckedFile>& file = FileOf(FileRole::kSystem);
    const CheckedEntry* const line = file ? file->Find(section, entry) : nullptr;
    Place place = file ? file->At(line != nullptr ? line->line : 1) : Place{};
    CheckLength(place, entry, value->text, maxLength);
    return Value{std::move(value->text), std::move(place)};
  }
  void CheckLength(const Place& place, std::string_view entry, std::string_view value,
                   std::size_t maxLength) {
    if (value.size() <= maxLength) return;
    mistakes_.Add(place,
                  "entry " + Quoted(entry) + " has " + std::to_string(value.size()) +
                      " characters and is cut",
                  "at most " + std::to_string(maxLength) + " are meant");
  }

  // --- watchers ---------------------------------------------------------------------------------

  void CollectWatchers() {
    if (std::optional<Value> first = ReadWatchCommand()) AddWatcher("", *std::move(first));
    for (std::size_t next = 0; next < watchers_.size(); ++next) {
      const std::vector<std::string> names = watchers_[next].extras;
      for (const std::string& name : names) AddExtra(name);
    }
  }
  std::optional<Value> ReadWatchCommand() {
    if (const std::optional<CheckedFile>& beside = FileOf(FileRole::kBeside)) {
      const CheckedEntry* const entry = beside->Find(kCommandSection, kWatchEntry);
      if (entry != nullptr && !entry->value.empty()) {
        return Value{std::string(entry->value), beside->At(entry->line)};
      }
    }
    std::optional<Value> value =
        Read(std::string(kCommandSection), std::string(kWatchEntry), kMaxCommandLine);
    if (value && value->text.empty()) return std::nullopt;
    return value;
  }
  void AddExtra(const std::string& name) {
    const bool isKnown = std::ranges::any_of(
        watchers_, [&name](const Watcher& other) { return other.name == name; });
    if (isKnown) return;
    if (watchers_.size() > kMaxExtraWatchers) {
      if (!std::exchange(tooMany_, true)) {
        mistakes_.Add(watchers_.front().place, "extra watcher " + Quoted(name) + " is not started",
                      "at most " + std::to_string(kMaxExtraWatchers) + " are meant");
      }
      return;
    }
    const std::string entry = ExtraWatcherEntry(name);
    Value command{ReadFileText(store_, kCommandSection, entry, std::string::npos),
                  watchers_.front().place};
    if (command.text.empty()) {
      command.text = UsualExtraCommand(name);
    } else if (const CheckedEntry* const line = SystemLine(entry)) {
      command.place = FileOf(FileRole::kSystem)->At(line->line);
      CheckLength(command.place, entry, command.text, kMaxCommandLine - kChildMark.size());
      if (command.text.find('"') != std::string::npos) {
        mistakes_.Add(command.place, "double quotes do not reach an extra watcher",
                      "options with quotes belong to the first watcher");
      }
    }
    AddWatcher(name, std::move(command));
  }
  const CheckedEntry* SystemLine(const std::string& entry) {
    const std::optional<CheckedFile>& file = FileOf(FileRole::kSystem);
    return file ? file->Find(kCommandSection, entry) : nullptr;
  }
  void AddWatcher(const std::string& name, Value command) {
    command.text.resize(std::min(command.text.size(), kMaxCommandLine));
    Watcher watcher{name, std::move(command.place), {}, {}};
    watcher.record = CheckWatchCommand(watcher.place, command.text, mistakes_);
    watcher.extras = ExtraWatcherNames(SplitConfigRest(watcher.record));
    watchers_.push_back(std::move(watcher));
  }

  void CheckWatcher(const Watcher& watcher, std::string& summary) {
    const CWatchOptions& record = watcher.record;
    summary += "\nWatcher " + Quoted(watcher.name.empty() ? record.section : watcher.name) + " (" +
               Shown(watcher.place.file) + ":" + std::to_string(watcher.place.line) + ")" +
               DescribeOptions(record) + "\n";
    if (record.sync) CheckReaders(watcher.place);
    switch (FormOf(record)) {
      case CommandForm::kSection:
        return CheckSections(watcher, summary);
      case CommandForm::kDirect:
        return CheckDirect(watcher, summary);
      case CommandForm::kKeyword:
        return CheckKeyword(watcher, summary);
    }
  }

  // --- the section form -------------------------------------------------------------------------

  void CheckSections(const Watcher& watcher, std::string& summary) {
    const std::string& name = watcher.record.section;
    const std::optional<std::string> insert = BuildEventSection(EventKind::kInsert, name);
    const std::optional<std::string> remove = BuildEventSection(EventKind::kRemove, name);
    if (!insert || !remove) {
      mistakes_.Add(watcher.place, "watcher " + Quoted(name) + " has a name that is too long",
                    "at most 50 characters are meant");
      return;
    }
    if (!HasFirst(*insert) && !HasFirst(*remove)) {
      mistakes_.Add(
          watcher.place, "watcher " + Quoted(name) + " has nothing to run",
          "an entry 1 in section " + Quoted(*insert) + " or " + Quoted(*remove) + " is meant");
    }
    CheckList(EventKind::kInsert, *insert, summary);
    CheckList(EventKind::kRemove, *remove, summary);
  }
  bool HasFirst(const std::string& section) {
    const auto first = config::ReadNumberedEntry(store_, section, 1, kMaxRemoveEntry);
    return first && !first->text.empty();
  }
  void CheckList(EventKind kind, const std::string& section, std::string& summary) {
    const bool isInsert = kind == EventKind::kInsert;
    const std::size_t maxLength = isInsert ? kMaxInsertEntry : kMaxRemoveEntry;
    summary += isInsert ? "  On insertion, in this order, up to the first that fails:\n"
                        : "  On removal, in this order, all of them:\n";
    std::size_t number = 1;
    std::optional<std::size_t> failing;
    for (; number <= kMaxCheckedList; ++number) {
      const std::optional<Value> value = Read(section, std::to_string(number), maxLength);
      if (!value) break;
      const std::string command = value->text.substr(0, maxLength);
      if (command.empty()) continue;
      if (isInsert && failing) {
        mistakes_.Add(value->place,
                      "the command is never run, for entry '" + std::to_string(*failing) +
                          "' fails and ends the list",
                      "it belongs in front of that");
      }
      CheckCommand(value->place, {kind, isInsert}, command, mistakes_);
      if (SplitCommand(kind, command).kind == CommandKind::kFailure && !failing) failing = number;
      if (summary.size() < kMaxSummary) {
        summary += "    " + std::to_string(number) + ". " + DescribeCommand(kind, command) + "\n";
      }
    }
    if (number > kMaxCheckedList) {
      const std::optional<CheckedFile>& file = FileOf(FileRole::kSystem);
      mistakes_.Add(file ? file->At(1) : Place{},
                    "the list " + Quoted(section) + " has more commands than are checked",
                    "the first " + std::to_string(kMaxCheckedList) + " were");
      return;
    }
    if (number == 1) summary += "    nothing\n";
    CheckNumbers(section, number);
  }
  /// What stands behind the end of a list, or is no number.
  void CheckNumbers(const std::string& section, std::size_t missing) {
    const std::optional<CheckedFile>& file = FileOf(FileRole::kSystem);
    const CheckedSection* const held = file ? file->Find(section) : nullptr;
    if (held == nullptr) return;
    for (const CheckedEntry& entry : held->entries) {
      if (entry.name.starts_with('#')) continue;
      const std::string_view name = runtime::DropTrailingBlanks(runtime::SkipBlanks(entry.name));
      if (name != entry.name) continue;  // said with the blank
      if (!IsListNumber(name)) {
        mistakes_.Add(file->At(entry.line), "entry " + Quoted(entry.name) + " is not read",
                      "numbers from 1 are meant");
      } else if (runtime::ParseDecimal(entry.name) > missing) {
        mistakes_.Add(file->At(entry.line), "entry " + Quoted(entry.name) + " is never reached",
                      "the list ends at the missing '" + std::to_string(missing) + "'");
      }
    }
  }

  // --- the other forms --------------------------------------------------------------------------

  void CheckDirect(const Watcher& watcher, std::string& summary) {
    std::string_view command = watcher.record.rest;
    const bool insertOnly = command.starts_with('~');
    if (insertOnly) command.remove_prefix(1);
    if (command.starts_with(' ') || command.starts_with('-')) return;  // said with the options
    CheckCommand(watcher.place, {EventKind::kInsert, false}, command, mistakes_);
    const std::string description = DescribeCommand(EventKind::kInsert, command);
    summary += "  On insertion:\n    " + description + "\n";
    if (!insertOnly) {
      summary += "  On removal:\n    " + DescribeCommand(EventKind::kRemove, command) + "\n";
    }
  }
  void CheckKeyword(const Watcher& watcher, std::string& summary) {
    const CWatchOptions& record = watcher.record;
    if (record.program.empty()) return;
    CheckProgramOption(watcher.place, record.program, record.arguments, mistakes_);
    summary += "  On insertion:\n";
    if (!record.configFile.empty()) {
      CheckTarget(watcher.place, record.configFile, mistakes_);
      summary += "    write the logon values into " + Shown(record.configFile) + "\n";
    }
    summary += "    start " + Shown(record.program + " " + record.arguments) + "\n";
    if (!record.configFile.empty()) {
      summary += "  On removal:\n    put " + Shown(record.configFile) + ".org back and clear it\n";
    }
  }

  // --- names ------------------------------------------------------------------------------------

  std::vector<std::string_view> SectionNames() {
    std::vector<std::string_view> names;
    names.reserve(kKnownEntries.size() + eventSections_.size() + watchers_.size());
    for (const KnownEntry& known : kKnownEntries) names.push_back(known.section);
    for (const std::string& section : eventSections_) names.push_back(section);
    for (const Watcher& watcher : watchers_) names.push_back(watcher.record.section);
    return names;
  }
  static bool Contains(const std::vector<std::string_view>& names, std::string_view name) {
    return std::ranges::any_of(
        names, [name](std::string_view other) { return runtime::EqualsNoCase(name, other); });
  }

  void CheckNames(const CheckedFile& file, FileRole role) {
    eventSections_.clear();
    for (const Watcher& watcher : watchers_) {
      for (const EventKind kind : {EventKind::kInsert, EventKind::kRemove}) {
        if (auto section = BuildEventSection(kind, watcher.record.section)) {
          eventSections_.push_back(*std::move(section));
        }
      }
    }
    const std::vector<std::string_view> names = SectionNames();
    for (const CheckedSection& section : file.Sections()) CheckSection(file, role, section, names);
  }
  void CheckSection(const CheckedFile& file, FileRole role, const CheckedSection& section,
                    const std::vector<std::string_view>& names) {
    const Place place = file.At(section.line);
    const bool isEvent = std::ranges::any_of(eventSections_, [&section](const std::string& event) {
      return runtime::EqualsNoCase(section.name, event);
    });
    if (!isEvent && !Contains(names, section.name)) {
      if (IsSuiteSection(section.name)) return;
      if (watchers_.empty() && IsEventSection(section.name)) return;
      std::string meant = MeantName(section.name, names, "");
      if (meant.empty() && IsEventSection(section.name))
        meant = "no watcher of that name is started";
      mistakes_.Add(place, "nothing reads section " + Quoted(section.name), meant);
      return;
    }
    if (role == FileRole::kUser && (isEvent || !IsOfUser(section.name))) {
      mistakes_.Add(place, "section " + Quoted(section.name) + " is not read from the user's file",
                    "it belongs into the system's file");
      return;
    }
    if (role == FileRole::kBeside && !runtime::EqualsNoCase(section.name, kCommandSection)) {
      mistakes_.Add(place, "section " + Quoted(section.name) + " is not read beside the program",
                    "it belongs into the system's file");
      return;
    }
    if (!isEvent) CheckEntries(file, section);
  }
  static bool IsOfUser(std::string_view section) {
    return std::ranges::any_of(kKnownEntries, [section](const KnownEntry& known) {
      return known.ofUser && runtime::EqualsNoCase(known.section, section);
    });
  }
  void CheckEntries(const CheckedFile& file, const CheckedSection& section) {
    std::vector<std::string_view> names;
    for (const KnownEntry& known : kKnownEntries) {
      if (runtime::EqualsNoCase(known.section, section.name)) names.push_back(known.entry);
    }
    const bool isOwn = names.empty() || runtime::EqualsNoCase(section.name, kCommandSection);
    if (names.empty()) names.push_back(kBackgroundEntry);
    if (names.front() == kNumberedEntries) return CheckNumbered(file, section);
    for (const CheckedEntry& entry : section.entries) {
      if (entry.name.starts_with('#')) continue;
      const bool isKnown = std::ranges::any_of(names, [&entry](std::string_view known) {
        return known.ends_with(' ') ? runtime::StartsWithNoCase(entry.name, known)
                                    : runtime::EqualsNoCase(entry.name, known);
      });
      if (isKnown) {
        CheckKnownLength(file, section, entry);
        continue;
      }
      // The other sections belong to the whole suite, whose other programs have entries of their
      // own.
      const std::string_view nearest = NearestName(entry.name, names);
      if (!isOwn && nearest.empty()) continue;
      const bool hasBlank = runtime::EqualsNoCase(
          nearest, runtime::DropTrailingBlanks(runtime::SkipBlanks(entry.name)));
      if (hasBlank) continue;  // said with the blank
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
    std::size_t limit = kMaxOption;
    for (const KnownEntry& known : kKnownEntries) {
      if (runtime::EqualsNoCase(known.section, section.name) &&
          runtime::EqualsNoCase(known.entry, entry.name)) {
        limit = known.maxLength;
      }
    }
    CheckLength(file.At(entry.line), entry.name, entry.value, limit);
  }
  void CheckNumbered(const CheckedFile& file, const CheckedSection& section) {
    std::vector<std::uint64_t> numbers;
    for (const CheckedEntry& entry : section.entries) {
      if (IsListNumber(entry.name)) numbers.push_back(runtime::ParseDecimal(entry.name));
    }
    std::ranges::sort(numbers);
    std::uint64_t missing = 1;
    for (const std::uint64_t number : numbers) missing += number == missing ? 1 : 0;
    for (const CheckedEntry& entry : section.entries) {
      if (!IsListNumber(entry.name) || runtime::ParseDecimal(entry.name) < missing) continue;
      mistakes_.Add(file.At(entry.line), "entry " + Quoted(entry.name) + " is never reached",
                    "the list ends at the missing '" + std::to_string(missing) + "'");
    }
  }

  // --- trace and library ------------------------------------------------------------------------

  void CheckTrace() {
    for (const FileRole role : {FileRole::kUser, FileRole::kSystem}) {
      const std::optional<CheckedFile>& file = FileOf(role);
      if (!file) continue;
      for (const std::string_view entry : {"watch", "bridge", "File"}) {
        CheckTraceEntry(*file, kTraceSection, entry);
      }
      CheckTraceEntry(*file, kTraceCallSection, "watch");
    }
  }
  void CheckTraceEntry(const CheckedFile& file, std::string_view section, std::string_view entry) {
    const CheckedEntry* const line = file.Find(section, entry);
    if (line == nullptr || line->value.empty()) return;
    const std::string path(line->value);
    const bool isCall = section == kTraceCallSection;
    const Place place = file.At(line->line);
    if (!isCall && path == runtime::kJournalTarget) return;
    if (path.find("||") != std::string::npos || runtime::StartsWithNoCase(path, "server")) return;
    if (!isCall && !runtime::IsTraceFileName(path)) {
      mistakes_.Add(place,
                    "trace file " + Quoted(path) + " has another ending, so nothing is traced",
                    "'.log' or '.txt' is meant");
    }
    const std::string folder = FolderOf(path);
    if (!path.starts_with('/')) {
      mistakes_.Add(
          place, "trace file " + Quoted(path) + " stands in the folder that the service starts in",
          "the whole path is meant");
    } else if (!IsFolder(folder)) {
      mistakes_.Add(place, "there is no folder " + Quoted(folder) + ", so nothing is traced",
                    "make it, or name another");
    }
  }

  void CheckLibrary() {
    const std::string entry = "Directory";
    const auto value = Read(std::string(kInstallSection), entry, kMaxOption);
    if (!value || value->text.empty()) return;
    std::string folder = value->text.substr(0, kMaxOption);
    if (!folder.ends_with('/')) folder += '/';
    directory_ = folder;
    const std::string library = std::string(runtime::Product().pkcs11Library);
    if (!IsFolder(folder)) {
      mistakes_.Add(value->place, "there is no folder " + Quoted(folder),
                    "the folder of '" + library + "' is meant");
    } else if (!runtime::PathExists(folder + library) &&
               !runtime::PathExists(runtime::LibraryDirectory() + library)) {
      mistakes_.Add(value->place, "there is no '" + library + "' in " + Quoted(folder),
                    "the folder of that library is meant");
    }
  }
  /// The bridge keeps back what an empty second reader tells of; it is known by its event
  /// descriptor.
  void CheckReaders(const Place& place) {
    if (readers_ == 0) readers_ = CountReaders(devices_);
    if (readers_ < 2) return;
    const std::string library = directory_ + std::string(runtime::Product().pkcs11Library);
    const std::string content = runtime::ReadWholeFile(library).value_or("");
    if (content.find("QixEventDescriptor") != std::string::npos) return;
    mistakes_.Add(place,
                  "with '-sync' and " + std::to_string(readers_) +
                      " readers an event of an empty one makes the service forget the card",
                  "the bridge is meant, which tells of one card at a time, or no '-sync'");
  }

  // --- summary ----------------------------------------------------------------------------------

  std::string DescribeFiles() {
    std::string text;
    const auto add = [&text](const std::optional<CheckedFile>& file, std::string_view what) {
      if (file) text += Shown(file->Path()) + ": " + std::string(what) + "\n";
    };
    add(FileOf(FileRole::kBeside), "the file beside the program, for the watch command");
    add(FileOf(FileRole::kUser), "the user's file, for sections Trace and Pkcs11");
    add(FileOf(FileRole::kSystem), reason_);
    return text;
  }

  static constexpr std::size_t kMaxSummary = 65536;

  const std::string& devices_;
  CheckResult& result_;
  std::string reason_ = "checked as the system's file";
  std::optional<CheckedFile> files_[3];
  config::CConfig store_;
  Mistakes mistakes_;
  std::vector<Watcher> watchers_;
  bool tooMany_ = false;
  std::vector<std::string> eventSections_;
  std::string directory_ = runtime::LibraryDirectory();
  std::size_t readers_ = 0;
};

/// Why the system's file is this one.
std::string_view ReasonFor(config::PathOrigin origin) {
  switch (origin) {
    case config::PathOrigin::kEnvironment:
      return "the system's file, as qixconfigglobal says";
    case config::PathOrigin::kHome:
    case config::PathOrigin::kPerUserInstall:
      return "the system's file, of a per-user installation";
    case config::PathOrigin::kCurrentDirectory:
      return "the system's file, in the current folder because there is no other";
    case config::PathOrigin::kSystemDirectory:
    case config::PathOrigin::kBuiltIn:
      return "the system's file";
  }
  return {};
}

void CheckFilesInUse(const std::string& devices, CheckResult& result) {
  ConfigurationCheck check(devices, result);
  const config::ConfigPath system = config::CConfig::LocateGlobal().value_or(config::ConfigPath{});
  check.SetReason(std::string(ReasonFor(system.origin)));
  const bool isRead = check.Take(FileRole::kSystem, system.path);
  if (!isRead && system.origin == config::PathOrigin::kCurrentDirectory) {
    result.errors += "qixxwatch: there is no /etc/" + system.path + " either\n";
  }
  const std::optional<config::ConfigPath> user = config::CConfig::LocateLocal();
  if (user && user->path != system.path && runtime::PathExists(user->path)) {
    check.Take(FileRole::kUser, user->path);
  }
  const std::optional<std::string> beside = LocalConfigurationPath();
  if (beside && runtime::PathExists(*beside)) check.Take(FileRole::kBeside, *beside);
  check.Run();
}

}  // namespace

CheckResult CheckConfiguration(std::span<const std::string> files, const std::string& devices) {
  runtime::InitProductIdentity();
  CheckResult result;
  if (files.empty()) CheckFilesInUse(devices, result);
  for (const std::string& file : files) {
    ConfigurationCheck check(devices, result);
    if (check.Take(FileRole::kSystem, file)) check.Run();
  }
  return result;
}

}  // namespace qixx::watch
