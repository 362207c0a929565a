#include "watch/check.h"

#include <algorithm>
#include <optional>
#include <string_view>
#include <vector>

#include "config/store.h"
#include "runtime/files.h"
#include "runtime/product.h"
#include "runtime/secrets.h"
#include "watch/check_command.h"
#include "watch/check_library.h"
#include "watch/check_names.h"
#include "watch/check_options.h"
#include "watch/check_paths.h"
#include "watch/check_report.h"
#include "watch/check_watchers.h"
#include "watch/command.h"
#include "watch/event_table.h"
#include "watch/people.h"
#include "watch/watch_main.h"

namespace qixx::watch {
namespace {

// --- what would run -----------------------------------------------------------------------------

/// Commands are left out once the text has this length.
constexpr std::size_t kMaxSummary = 65536;

/// What the service would do by a configuration, in words.
class Summary {
 public:
  explicit Summary(EventLists& lists) : lists_(lists) {}

  void AddFile(const CheckedFile& file, std::string_view what) {
    if (!file.Path().empty()) AddLine(Shown(file.Path()).append(": ").append(what));
  }
  void AddWatcher(const CheckedWatcher& watcher) {
    const CWatchOptions& record = watcher.record;
    const runtime::MaskedLine line(watcher.line);
    AddLine("\nWatcher " + Quoted(watcher.name.empty() ? record.section : watcher.name) + " (" +
            Shown(watcher.place.file) + ":" + std::to_string(watcher.place.line) + ")" +
            DescribeOptions(record, line));
    switch (FormOf(record)) {
      case CommandForm::kSection:
        return AddSections(record);
      case CommandForm::kDirect:
        return AddDirect(record, line);
      case CommandForm::kKeyword:
        return AddKeyword(record, line);
    }
  }
  void AddLine(std::string_view line) { text_.append(line).append(1, '\n'); }
  [[nodiscard]] const std::string& Text() const { return text_; }

 private:
  void AddSections(const CWatchOptions& record) {
    const std::optional<EventSections> sections = EventSectionsOf(record);
    if (!sections) return;
    std::string ending;
    for (const std::string_view keyword : KeywordsThatMayFail()) {
      ending.append(ending.empty() ? "" : ", ").append(keyword);
    }
    AddLine("  On insertion, in this order, up to a " + ending + " or close that fails:");
    AddList(EventKind::kInsert, sections->insert);
    AddLine("  On removal, in this order, all of them:");
    AddList(EventKind::kRemove, sections->remove);
  }
  void AddList(EventKind kind, const std::string& section) {
    const EventList& list = lists_.Read(kind, section);
    if (!list.hasEntries) AddLine("    nothing");
    for (const NumberedCommand& command : list.commands) {
      if (text_.size() >= kMaxSummary) return;
      AddLine("    " + std::to_string(command.number) + ". " +
              DescribeCommand(kind, command.text, runtime::MaskedLine(command.line)));
    }
  }
  void AddDirect(const CWatchOptions& record, const runtime::MaskedLine& line) {
    const std::optional<DirectCommand> command = DirectCommandOf(record);
    if (!command) return;
    AddLine("  On insertion:");
    AddLine("    " + DescribeCommand(EventKind::kInsert, command->text, line));
    if (!command->onRemoval) return;
    AddLine("  On removal:");
    AddLine("    " + DescribeCommand(EventKind::kRemove, command->text, line));
  }
  void AddKeyword(const CWatchOptions& record, const runtime::MaskedLine& line) {
    if (record.program.empty()) return;
    const std::string file = Shown(line.Part(record.configFile));
    AddLine("  On insertion:");
    if (!file.empty()) AddLine("    write the logon values into " + file);
    AddLine("    start " + Shown(line.Part(record.program) + " " + line.Part(record.arguments)));
    if (file.empty()) return;
    AddLine("  On removal:");
    AddLine("    put " + file + ".org back and clear it");
  }

  EventLists& lists_;
  std::string text_;
};

// --- the check ----------------------------------------------------------------------------------

/// Takes a file; false, and said, when it cannot be read.
bool Take(CheckedConfiguration& configuration, CheckedRole role, const std::string& path,
          CheckResult& result) {
  const std::optional<std::string> fault = configuration.Load(role, path);
  if (!fault) return true;
  result.errors += "qixxwatch: " + Shown(path) + " cannot be read: " + *fault + "\n";
  result.exitCode = kExitUnable;
  return false;
}

/// `readers` is how many of them confuse a watcher with "-sync".
void CheckSync(const CheckedWatcher& watcher, std::size_t readers, Mistakes& mistakes) {
  if (!watcher.record.sync || readers == 0) return;
  mistakes.Add(watcher.place,
               "with '-sync' and " + std::to_string(readers) +
                   " readers an event of an empty one makes the service forget the card",
               "the bridge is meant, which tells of one card at a time, or no '-sync'");
}

/// Mistakes of one line are said in the order of these steps.
void Check(CheckedConfiguration& configuration, std::string_view reason, const std::string& devices,
           CheckResult& result) {
  Mistakes mistakes;
  for (const CheckedRole role : kCheckedRoles) configuration.File(role).CheckLines(mistakes);
  const std::vector<CheckedWatcher> watchers = CollectWatchers(configuration, mistakes);
  CheckNames(configuration, watchers, mistakes);
  CheckTraceFiles(configuration, mistakes);
  const std::string directory = CheckLibraryDirectory(configuration, mistakes);
  const bool isAnySync = std::ranges::any_of(
      watchers, [](const CheckedWatcher& watcher) { return watcher.record.sync; });
  const std::size_t readers = isAnySync ? CountConfusingReaders(devices, directory) : 0;
  EventLists lists(configuration);
  Summary summary(lists);
  summary.AddFile(configuration.File(CheckedRole::kBeside),
                  "the file beside the program, for the watch command");
  summary.AddFile(configuration.File(CheckedRole::kUser),
                  "the user's file, for sections Trace and Pkcs11");
  summary.AddFile(configuration.System(), reason);
  for (const CheckedWatcher& watcher : watchers) {
    CheckSync(watcher, readers, mistakes);
    CheckWatcher(watcher, configuration, lists, mistakes);
    summary.AddWatcher(watcher);
  }
  if (watchers.empty() && !configuration.System().Path().empty()) {
    summary.AddLine("Nothing is watched: no entry Watch in section Command.");
  }
  result.output += mistakes.Text() + summary.Text();
  if (mistakes.Count() != 0) result.exitCode = std::max(result.exitCode, 1);
}

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
    default:
      return "the system's file";
  }
}

void CheckFilesInUse(const std::string& devices, CheckResult& result) {
  CheckedConfiguration configuration;
  const config::ConfigPath system = config::CConfig::LocateGlobal().value_or(config::ConfigPath{});
  const bool isRead = Take(configuration, CheckedRole::kSystem, system.path, result);
  if (!isRead && system.origin == config::PathOrigin::kCurrentDirectory) {
    result.errors += "qixxwatch: there is no /etc/" + system.path + " either\n";
  }
  const std::optional<config::ConfigPath> user = config::CConfig::LocateLocal();
  if (user && user->path != system.path && runtime::PathExists(user->path)) {
    Take(configuration, CheckedRole::kUser, user->path, result);
  }
  const std::optional<std::string> beside = LocalConfigurationPath();
  if (beside && runtime::PathExists(*beside)) {
    Take(configuration, CheckedRole::kBeside, *beside, result);
  }
  Check(configuration, ReasonFor(system.origin), devices, result);
}

}  // namespace

CheckResult CheckConfiguration(std::span<const std::string> files, const std::string& devices) {
  runtime::InitProductIdentity();
  CheckResult result;
  if (files.empty()) CheckFilesInUse(devices, result);
  for (const std::string& file : files) {
    CheckedConfiguration configuration;
    if (!Take(configuration, CheckedRole::kSystem, file, result)) continue;
    Check(configuration, "checked as the system's file", devices, result);
  }
  return result;
}

}  // namespace qixx::watch
