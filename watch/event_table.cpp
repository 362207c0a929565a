#include "watch/event_table.h"

#include <cstdio>

#include "runtime/secrets.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "watch/command.h"
#include "watch/credentials.h"
#include "watch/set_command.h"
#include "watch/stop.h"
#include "watch/terminate_list.h"

namespace qixx::watch {
namespace {

/// The three sources of event commands.
enum class CommandForm { kSection, kDirect, kKeyword };

CommandForm FormOf(const CWatchOptions& record) {
  const std::string_view rest = runtime::TextOf(record.rest);
  if (rest.empty()) return CommandForm::kKeyword;
  return runtime::EqualsNoCase(rest, kConfigWord) ? CommandForm::kSection : CommandForm::kDirect;
}

/// Reads entry `number` of an event section. A present but empty entry is read.
bool ReadEventEntry(config::CConfig& config, const char* section, unsigned number,
                    std::span<char> value, bool convert) {
  char key[kEntryKeySize];
  FormatEntryKey(number, key);
  return config::ReadConfigText(config, section, key, value, convert);
}

bool HasFirstEntry(config::CConfig& config, std::string_view name, bool insert) {
  char section[kEventSectionSize];
  if (!BuildEventSection(insert, name, section)) return false;
  char value[kRemoveEntrySize];
  return ReadEventEntry(config, section, 1, value, false) && value[0] != '\0';
}

/// Runs one command text with the settings of the event.
bool Execute(const CWatchOptions& record, CK_SLOT_ID slot, bool insert, const char* text) {
  const std::uint64_t wait = insert ? record.insertWait : record.removeWait;
  const bool hide = (insert ? record.hideInsert : record.hideRemove) != 0;
  return ExecuteCommand(slot, insert, text, wait, !hide, record.terminate != 0);
}

// --- insert -----------------------------------------------------------------------------------

bool InsertDirect(const CWatchOptions& record, CK_SLOT_ID slot) {
  if (record.rest[0] == '~') return Execute(record, slot, true, record.rest + 1);
  if (runtime::StartsWithNoCase(record.rest, "-r ")) return true;
  return Execute(record, slot, true, record.rest);
}

bool InsertSection(const CWatchOptions& record, CK_SLOT_ID slot) {
  char section[kEventSectionSize];
  if (!BuildEventSection(true, runtime::TextOf(record.section), section)) return false;
  if (!IsMatchingCardPresent(runtime::TextOf(record.match))) return false;
  config::CConfig config;
  if (!LoadProductConfiguration(config)) return false;

  char text[kInsertEntrySize];
  for (unsigned number = 1; ReadEventEntry(config, section, number, text, true); ++number) {
    if (text[0] == '\0') continue;
    ExpandLogonPlaceholders(runtime::TextOf(record.match), text);
    // A failing command ends the list, but not the event's success.
    if (!Execute(record, slot, true, text)) break;
  }
  return true;
}

bool InsertKeyword(CWatchOptions& record, CK_SLOT_ID slot) {
  if (record.registry[0] != '\0' || record.configFile[0] != '\0') {
    // The program starts whether or not the values could be written.
    RunSetCommand(slot, runtime::TextOf(record.match), runtime::TextOf(record.registry),
                  runtime::TextOf(record.configFile), true);
  }
  const bool show = record.hideInsert == 0;
  std::uint64_t processId = 0;
  if (!StartCommandProcess(record.program, record.arguments, record.insertWait, show, processId)) {
    return false;
  }
  record.processId = processId;
  runtime::TraceWrite("Watch - Process %d started", static_cast<int>(processId));
  return true;
}

bool RunInsertCommands(CWatchOptions& record, CK_SLOT_ID slot) {
  switch (FormOf(record)) {
    case CommandForm::kDirect:
      return InsertDirect(record, slot);
    case CommandForm::kSection:
      return InsertSection(record, slot);
    case CommandForm::kKeyword:
      return InsertKeyword(record, slot);
  }
  return false;
}

// --- remove -----------------------------------------------------------------------------------

void EndKeywordProcess(CWatchOptions& record) {
  if (record.terminate == 0 || record.processId == 0) return;
  runtime::TraceWrite("Watch - Terminate process id %d", static_cast<int>(record.processId));
  if (EndProcess(record.processId)) {
    runtime::TraceWrite("Watch - Terminate process SUCCESS");
  } else {
    runtime::TraceWrite("Watch - Terminate process FAILED");
  }
  record.processId = 0;
}

// All commands run, whatever becomes of each: a removal has to leave everything locked and cleared.
void RemoveSection(config::CConfig& config, const CWatchOptions& record, CK_SLOT_ID slot) {
  char section[kEventSectionSize];
  if (!BuildEventSection(false, runtime::TextOf(record.section), section)) return;
  char text[kRemoveEntrySize];
  for (unsigned number = 1; ReadEventEntry(config, section, number, text, true); ++number) {
    if (text[0] != '\0') Execute(record, slot, false, text);
  }
}

void RunRemoveCommands(config::CConfig& config, const CWatchOptions& record, CK_SLOT_ID slot) {
  switch (FormOf(record)) {
    case CommandForm::kDirect:
      if (record.rest[0] != '~') Execute(record, slot, false, record.rest);
      break;
    case CommandForm::kSection:
      RemoveSection(config, record, slot);
      break;
    case CommandForm::kKeyword:
      if (record.configFile[0] != '\0') RestoreAndClear(record.configFile);
      break;
  }
}

// --- the wait in front of an event ------------------------------------------------------------

/// A removal that has nothing but endings to do goes on only while there is something to end.
bool MayRemove(config::CConfig& config, const CWatchOptions& record, CK_SLOT_ID slot) {
  if (IsOrdinaryCommand(config, runtime::TextOf(record.section), runtime::TextOf(record.rest)))
    return true;
  return record.terminate != 0 && IsSlotProcessRunning(slot);
}

bool MayInsert(const CWatchOptions& record) {
  return record.match[0] == '\0' || IsCredentialStillPresent(record);
}

}  // namespace

bool LoadProductConfiguration(config::CConfig& config) {
  return config.OpenDefault(false) == config::kConfigOk && config.HasText();
}

bool BuildWatchSection(std::string_view name, std::span<char> out) {
  constexpr std::string_view kPrefix = "Watch ";
  if (out.empty()) return false;
  out[0] = '\0';
  if (name.size() + kPrefix.size() >= out.size()) return false;
  const std::size_t length = name == kDefaultSection ? 0 : runtime::CopyTextCut(out, kPrefix);
  runtime::CopyTextCut(out.subspan(length), name);
  return true;
}

bool BuildEventSection(bool insert, std::string_view name, std::span<char> out) {
  const std::string_view suffix = insert ? " Insert" : " Remove";
  if (out.empty()) return false;
  out[0] = '\0';
  if (name.size() + suffix.size() < out.size() &&
      BuildWatchSection(name, out.first(out.size() - suffix.size()))) {
    runtime::CopyTextCut(out.subspan(runtime::TextOf(out).size()), suffix);
  }
  runtime::TraceWrite("Watch - Configuration: '%s'", runtime::MaskedText(out.data()).Text());
  return out[0] != '\0';
}

void FormatEntryKey(unsigned number, std::span<char> key) {
  std::snprintf(key.data(), key.size(), "%u", number);
}

bool HasEventCommands(const CWatchOptions& record) {
  if (FormOf(record) != CommandForm::kSection) {
    return record.rest[0] != '\0' || record.program[0] != '\0';
  }
  config::CConfig config;
  if (!LoadProductConfiguration(config)) return false;
  const bool onInsert = HasFirstEntry(config, runtime::TextOf(record.section), true);
  const bool onRemove = HasFirstEntry(config, runtime::TextOf(record.section), false);
  return onInsert || onRemove;
}

bool WaitBeforeEvent(const CWatchOptions& record, CK_SLOT_ID slot, bool insert) {
  const std::uint64_t wait = insert ? record.insertWait : record.removeWait;
  if (wait == 0) return true;
  config::CConfig config;
  // Without a configuration the remove section counts as having no ordinary command.
  static_cast<void>(LoadProductConfiguration(config));

  const std::uint64_t rounds = WaitRounds(wait);
  for (std::uint64_t round = 0; round < rounds; ++round) {
    if (!(insert ? MayInsert(record) : MayRemove(config, record, slot))) return false;
    EventHook(record, insert);
    if (!WatchSleep(kWaitPause)) return false;
  }
  return true;
}

bool IsOrdinaryCommand(config::CConfig& config, std::string_view name, std::string_view text) {
  if (runtime::StartsWithNoCase(text, kConfigWord))
    return HasOrdinaryRemoveCommand(config, name, false);
  return !runtime::StartsWithNoCase(text, "close ") && !runtime::StartsWithNoCase(text, "kill ");
}

bool HasOrdinaryRemoveCommand(config::CConfig& config, std::string_view name, bool insert) {
  char section[kEventSectionSize];
  if (!BuildEventSection(insert, name, section)) return false;
  char text[kRemoveEntrySize];
  for (unsigned number = 1; ReadEventEntry(config, section, number, text, false); ++number) {
    // In the remove section such an entry would only send the scan back to its own start.
    if (!insert && runtime::StartsWithNoCase(text, kConfigWord)) continue;
    if (IsOrdinaryCommand(config, name, text)) return true;
  }
  return false;
}

bool OnInsertEvent(CWatchOptions& record, CK_SLOT_ID slot) {
  runtime::TraceWrite("Watch - Inserted event ...");
  if (!WaitBeforeEvent(record, slot, true)) {
    runtime::TraceWrite("Watch - Inserted event ... %s", "FAILED");
    return false;
  }
  EventHook(record, true);
  const bool success = RunInsertCommands(record, slot);
  SweepTerminateList(true, slot);
  EventHook(record, true);
  runtime::TraceWrite("Watch - Inserted event ... %s", success ? "OK" : "FAILED");
  return success;
}

void OnRemoveEvent(CWatchOptions& record, CK_SLOT_ID slot) {
  runtime::TraceWrite("Watch - Remove event ...");
  {
    config::CConfig config;
    // A configuration that does not load has no entries, so it runs no remove commands.
    static_cast<void>(LoadProductConfiguration(config));
    if (WaitBeforeEvent(record, slot, false)) {
      EventHook(record, false);
      EndKeywordProcess(record);
      RunRemoveCommands(config, record, slot);
    }
    EventHook(record, false);
  }
  // Also behind a wait that said no: what the insert started does not outlive the card.
  SweepTerminateList(false, slot);
  runtime::TraceWrite("Watch - Remove event ... done");
}

void EventHook(const CWatchOptions& /*record*/, bool /*insert*/) {}

}  // namespace qixx::watch
