#include "watch/check_summary.h"

#include <optional>

#include "watch/check_command.h"
#include "watch/check_options.h"
#include "watch/check_report.h"
#include "watch/event_table.h"

namespace qixx::watch {
namespace {

class Summary {
 public:
  explicit Summary(EventLists& lists) : lists_(lists) {}

  void AddFile(const CheckedFile* file, std::string_view what) {
    if (file != nullptr) text_ += Shown(file->Path()) + ": " + std::string(what) + "\n";
  }
  void AddWatcher(const CheckedWatcher& watcher) {
    const CWatchOptions& record = watcher.record;
    text_ += "\nWatcher " + Quoted(watcher.name.empty() ? record.section : watcher.name) + " (" +
             Shown(watcher.place.file) + ":" + std::to_string(watcher.place.line) + ")" +
             DescribeOptions(record) + "\n";
    switch (FormOf(record)) {
      case CommandForm::kSection:
        return AddSections(record);
      case CommandForm::kDirect:
        return AddDirect(record);
      case CommandForm::kKeyword:
        return AddKeyword(record);
    }
  }
  void AddLine(std::string_view line) { text_.append(line).append(1, '\n'); }
  [[nodiscard]] const std::string& Text() const { return text_; }

 private:
  void AddSections(const CWatchOptions& record) {
    const std::optional<EventSections> sections = EventSectionsOf(record);
    if (!sections) return;
    AddLine("  On insertion, in this order, up to a set, load, extern or close that fails:");
    AddList(EventKind::kInsert, sections->insert);
    AddLine("  On removal, in this order, all of them:");
    AddList(EventKind::kRemove, sections->remove);
  }
  void AddList(EventKind kind, const std::string& section) {
    const EventList& list = lists_.Read(kind, section);
    if (!list.hasEntries) AddLine("    nothing");
    for (const NumberedCommand& command : list.commands) {
      if (text_.size() >= kMaxSummary) return;
      AddLine("    " + std::to_string(command.number) + ". " + DescribeCommand(kind, command.text));
    }
  }
  void AddDirect(const CWatchOptions& record) {
    const std::optional<DirectCommand> command = DirectCommandOf(record);
    if (!command) return;
    AddLine("  On insertion:");
    AddLine("    " + DescribeCommand(EventKind::kInsert, command->text));
    if (!command->onRemoval) return;
    AddLine("  On removal:");
    AddLine("    " + DescribeCommand(EventKind::kRemove, command->text));
  }
  void AddKeyword(const CWatchOptions& record) {
    if (record.program.empty()) return;
    const std::string file = Shown(record.configFile);
    AddLine("  On insertion:");
    if (!file.empty()) AddLine("    write the logon values into " + file);
    AddLine("    start " + Shown(record.program + " " + record.arguments));
    if (file.empty()) return;
    AddLine("  On removal:");
    AddLine("    put " + file + ".org back and clear it");
  }

  EventLists& lists_;
  std::string text_;
};

}  // namespace

std::string DescribeConfiguration(const CheckedConfiguration& configuration,
                                  std::string_view reason, std::span<const CheckedWatcher> watchers,
                                  EventLists& lists) {
  const CheckedFile* const system = configuration.File(CheckedRole::kSystem);
  Summary summary(lists);
  summary.AddFile(configuration.File(CheckedRole::kBeside),
                  "the file beside the program, for the watch command");
  summary.AddFile(configuration.File(CheckedRole::kUser),
                  "the user's file, for sections Trace and Pkcs11");
  summary.AddFile(system, reason);
  for (const CheckedWatcher& watcher : watchers) summary.AddWatcher(watcher);
  if (watchers.empty() && system != nullptr) {
    summary.AddLine("Nothing is watched: no entry Watch in section Command.");
  }
  return summary.Text();
}

}  // namespace qixx::watch
