#include "watch/event_handlers.h"

#include <optional>
#include <utility>

#include "runtime/notice.h"
#include "runtime/process.h"
#include "runtime/scarce_means.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "watch/command.h"
#include "watch/configuration.h"
#include "watch/credentials.h"
#include "watch/edit_in_time.h"
#include "watch/event_table.h"
#include "watch/guard.h"
#include "watch/logon_file.h"
#include "watch/parallel.h"
#include "watch/placeholders.h"
#include "watch/set_command.h"
#include "watch/stop.h"
#include "watch/terminate_list.h"

namespace qixx::watch {
namespace {

// --- the wait in front of an event --------------------------------------------------------------

/// An insert holds while its card yields a credential for the match, if there is one; a removal
/// that has nothing but endings to do while there is something to end.
bool StillHolds(const CWatchOptions& record, const WatchEvent& event, config::CConfig& config,
                CardReader& card) {
  if (event.IsInsert()) return event.match.empty() || IsCredentialStillPresent(card, event.match);
  return IsOrdinaryCommand(config, record.section, record.rest) ||
         (event.terminate && IsSlotProcessRunning(event.slot));
}

/// How the wait in front of the commands ended: kUnread is kOver without a configuration.
enum class WaitEnd { kPassed, kOver, kUnread };

/// The gate in front of the handlers: kPassed when the handler is to proceed. Waits the seconds
/// that the event names, asking three times in each whether it still holds; over at once when it
/// does not, or when the process is asked to stop. Without a wait nothing is asked. Opens a
/// configuration of its own, which shows in the trace.
WaitEnd WaitBeforeEvent(const CWatchOptions& record, const WatchEvent& event,
                        const Platform& platform) {
  if (event.wait == 0) return WaitEnd::kPassed;
  // Without a configuration the remove section counts as having no ordinary command.
  config::CConfig config;
  const WaitEnd over = LoadProductConfiguration(config) ? WaitEnd::kOver : WaitEnd::kUnread;

  const std::uint64_t rounds = WaitRounds(event.wait);
  for (std::uint64_t round = 0; round < rounds; ++round) {
    if (!StillHolds(record, event, config, platform.card)) return over;
    EventHook(record, event.kind);
    if (WatchPause(platform, kWaitPause) == WakeUp::kStop) return over;
  }
  return WaitEnd::kPassed;
}

// --- insert -------------------------------------------------------------------------------------

bool InsertDirect(const CWatchOptions& record, const WatchEvent& event, CardReader& card) {
  const std::string_view text = record.rest;
  if (text.starts_with(kInsertOnlyMark)) return ExecuteCommand(card, event, text.substr(1));
  // It does nothing either way, but executed it would show in the trace, as it does on removal
  // only.
  if (runtime::StartsWithNoCase(text, kRegistryKeyword)) return true;
  return ExecuteCommand(card, event, text);
}

bool InsertSection(const CWatchOptions& record, const WatchEvent& event, const Platform& platform) {
  CardReader& card = platform.card;
  const std::optional<std::string> section = BuildEventSection(event.kind, record.section);
  if (!section || !IsMatchingCardPresent(card, event.match)) return false;
  config::CConfig config;
  if (!LoadProductConfiguration(config)) return false;
  ForgetOwedParallelJobs();
  for (unsigned number = 1;; ++number) {
    platform.manager.Alive();
    std::optional<std::string> text = ReadEventEntry(config, *section, number, kMaxInsertEntry);
    if (!text) return true;
    if (text->empty()) continue;
    const std::string command =
        ExpandLogonPlaceholders(card, event.match, *std::move(text), kMaxInsertEntry);
    // A failing command ends the list, but not the event's success.
    if (!ExecuteCommand(card, event, command)) return true;
  }
}

bool InsertKeyword(CWatchOptions& record, const WatchEvent& event, CardReader& card) {
  if (!record.registry.empty() || !record.configFile.empty()) {
    // The program starts whether or not the values could be written.
    RunGuarded([&] { return RunSetCommand(card, event, SetOptionsOf(record)); });
  }
  const std::optional<std::uint64_t> processId =
      StartCommandProcess(record.program, record.arguments, event.show);
  if (!processId) return false;
  record.processId = *processId;
  runtime::TraceWrite("Watch - Process %d started", static_cast<int>(*processId));
  return true;
}

bool RunInsertCommands(CWatchOptions& record, const WatchEvent& event, const Platform& platform) {
  switch (FormOf(record)) {
    case CommandForm::kDirect:
      ForgetOwedParallelJobs();
      return InsertDirect(record, event, platform.card);
    case CommandForm::kSection:
      return InsertSection(record, event, platform);
    case CommandForm::kKeyword:
      ForgetOwedParallelJobs();
      return InsertKeyword(record, event, platform.card);
  }
  return false;
}

// --- remove -------------------------------------------------------------------------------------

void EndKeywordProcess(CWatchOptions& record) {
  if (!record.terminate || record.processId == 0) return;
  runtime::TraceWrite("Watch - Terminate process id %d", static_cast<int>(record.processId));
  const bool ended = runtime::EndProcess(record.processId);
  runtime::TraceWrite("Watch - Terminate process %s", ended ? "SUCCESS" : "FAILED");
  record.processId = 0;
}

/// False when there was no room for the new text.
bool RestoreKeywordFile(const CWatchOptions& record) {
  const runtime::ScarceMeans scarce;
  // A longer name was refused on insert.
  if (record.configFile.size() <= kMaxOption) ClearLogonValues(record.configFile, true);
  return !scarce.Any();
}

/// The command's place in the list is made before it runs, so that memory can run out no later.
void RunOrOwe(const WatchEvent& event, std::string text, const Platform& platform,
              std::list<std::string>& owed) {
  std::list<std::string> place;
  place.push_back(std::move(text));
  if (!RunRemoveCommand(platform.card, event, place.front())) owed.splice(owed.end(), place);
}

/// All commands run, whatever becomes of each: a removal has to leave everything locked and
/// cleared.
OwedRemoval RemoveSection(config::CConfig& config, const CWatchOptions& record,
                          const WatchEvent& event, const Platform& platform) {
  OwedRemoval owed;
  const std::optional<std::string> section = BuildEventSection(event.kind, record.section);
  if (!section) return owed;
  for (unsigned number = 1;; ++number) {
    std::optional<std::string> text = ReadEventEntry(config, *section, number, kMaxRemoveEntry);
    // The environment may have entries where there is no file.
    if (!text && number == 1) owed.isUnread = !config.HasText();
    if (!text) return owed;
    platform.manager.Alive();
    if (!text->empty()) RunOrOwe(event, *std::move(text), platform, owed.commands);
  }
}

OwedRemoval RemoveDirect(const CWatchOptions& record, const WatchEvent& event,
                         const Platform& platform) {
  OwedRemoval owed;
  const bool isForInserts = record.rest.starts_with(kInsertOnlyMark);
  if (!isForInserts) RunOrOwe(event, record.rest, platform, owed.commands);
  return owed;
}

OwedRemoval RunRemoveCommands(CWatchOptions& record, CK_SLOT_ID slot, const Platform& platform) {
  const WatchEvent event = EventOf(record, EventKind::kRemove, slot);
  config::CConfig config;
  // A configuration that does not load has no entries, so it runs no remove commands.
  const bool isLoaded = LoadProductConfiguration(config);
  if (const WaitEnd wait = WaitBeforeEvent(record, event, platform); wait != WaitEnd::kPassed) {
    // The wait is over too where the configuration could not be read: the removal then waits for
    // that. What a stop cuts off stays owed as a whole.
    const bool isRead = isLoaded && wait != WaitEnd::kUnread;
    return {.isWhole = StopRequested(),
            .isUnread = !isRead && FormOf(record) == CommandForm::kSection};
  }
  EventHook(record, event.kind);
  EndKeywordProcess(record);
  switch (FormOf(record)) {
    case CommandForm::kDirect:
      return RemoveDirect(record, event, platform);
    case CommandForm::kSection:
      return RemoveSection(config, record, event, platform);
    case CommandForm::kKeyword:
      return {.isWhole = !RestoreKeywordFile(record)};
  }
  return {};
}

}  // namespace

bool OnInsertEvent(CWatchOptions& record, CK_SLOT_ID slot, const Platform& platform) {
  runtime::TraceWrite("Watch - Inserted event ...");
  BeginEventEdits();
  const runtime::ScarceMeans scarce;
  WatchEvent event;
  bool success = RunGuarded([&] {
    event = EventOf(record, EventKind::kInsert, slot);
    return WaitBeforeEvent(record, event, platform) == WaitEnd::kPassed;
  });
  if (success) {
    EventHook(record, EventKind::kInsert);
    success = RunGuarded([&] { return RunInsertCommands(record, event, platform); });
    RunStep([slot] { SweepTerminateList(EventKind::kInsert, slot); });
    EventHook(record, EventKind::kInsert);
  }
  runtime::TraceWrite("Watch - Inserted event ... %s", success ? "OK" : "FAILED");
  return success && !scarce.Any();
}

OwedRemoval OnRemoveEvent(CWatchOptions& record, CK_SLOT_ID slot, const Platform& platform) {
  runtime::TraceWrite("Watch - Remove event ...");
  BeginEventEdits();
  OwedRemoval owed{.isWhole = true};  // should memory run out on the way
  RunStep([&] { owed = RunRemoveCommands(record, slot, platform); });
  if (owed.isUnread) {
    RunStep([] { runtime::NotifyOnce("a removal ran nothing: " + WhyMissing("text")); });
  }
  EventHook(record, EventKind::kRemove);
  // Also behind a wait that said no: what the insert started does not outlive the card.
  RunStep([slot] { SweepTerminateList(EventKind::kRemove, slot); });
  runtime::TraceWrite("Watch - Remove event ... done");
  return owed;
}

std::list<std::string> RunOwedCommands(const CWatchOptions& record, CK_SLOT_ID slot,
                                       const Platform& platform, std::list<std::string> commands,
                                       std::int64_t milliseconds) {
  runtime::TraceWrite("Watch - Owed remove commands ...");
  BeginEventEdits(milliseconds);
  RunStep([&] {
    const WatchEvent event = EventOf(record, EventKind::kRemove, slot);
    commands.remove_if([&](const std::string& text) {
      platform.manager.Alive();
      return RunRemoveCommand(platform.card, event, text);
    });
  });
  return commands;
}

}  // namespace qixx::watch
