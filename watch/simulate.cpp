#include "watch/simulate.h"

#include <optional>
#include <string>

#include "config/store.h"
#include "runtime/secrets.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "watch/command.h"
#include "watch/configuration.h"
#include "watch/event_handlers.h"
#include "watch/event_table.h"
#include "watch/guard.h"

namespace qixx::watch {
namespace {

/// Longest command of a simulation, of either kind.
constexpr std::size_t kMaxSimulatedEntry = 255;

/// Waits as an insert does, for either kind; false when there is nothing worth waiting for, or when
/// the process is asked to stop.
bool WaitBeforeSimulation(config::CConfig& config, const CWatchOptions& record, EventKind kind,
                          Clock& clock) {
  const std::uint64_t rounds = WaitRounds(record.insertWait);
  for (std::uint64_t round = 0; round < rounds; ++round) {
    if (!HasOrdinaryRemoveCommand(config, record.section, kind)) return false;
    EventHook(record, kind);
    if (!WatchSleep(clock, kWaitPause)) return false;
  }
  return true;
}

/// Every entry up to the first missing one runs, as an insert's command without a slot, whatever
/// came of the others.
void RunEntries(config::CConfig& config, const CWatchOptions& record, const std::string& section,
                CardReader& card) {
  const WatchEvent event = EventOf(record, EventKind::kInsert, kNoSlot);
  for (unsigned number = 1;; ++number) {
    const std::optional<std::string> text =
        ReadEventEntry(config, section, number, kMaxSimulatedEntry);
    if (!text) return;
    if (RunGuarded([&] { return ExecuteCommand(card, event, *text); })) continue;
    runtime::TraceWrite("Watch - Simulate %s at %s failed",
                        runtime::MaskedText(record.simulate).Text(),
                        std::to_string(number).c_str());
  }
}

}  // namespace

int SimulateEvent(const CWatchOptions& record, const Platform& platform) {
  config::CConfig config;
  if (!LoadProductConfiguration(config)) return 0;
  const bool insert = runtime::EqualsNoCase(record.simulate, "INSERT");
  const EventKind kind = insert ? EventKind::kInsert : EventKind::kRemove;
  if (!WaitBeforeSimulation(config, record, kind, platform.clock)) return 0;
  const std::optional<std::string> section = BuildEventSection(kind, record.section);
  if (section) RunEntries(config, record, *section, platform.card);
  return 0;
}

}  // namespace qixx::watch
