#include "watch/simulate.h"

#include "config/store.h"
#include "runtime/secrets.h"
#include "runtime/trace.h"
#include "watch/command.h"
#include "watch/event_table.h"
#include "watch/stop.h"

namespace qixx::watch {
namespace {

/// Waits as an insert does, for either kind; false when there is nothing worth waiting for, or when
/// the process is asked to stop.
bool WaitBeforeSimulation(config::CConfig& config, const CWatchOptions& record, bool insert) {
  const std::uint64_t rounds = WaitRounds(record.insertWait);
  for (std::uint64_t round = 0; round < rounds; ++round) {
    if (!HasOrdinaryRemoveCommand(config, record.section, insert)) return false;
    EventHook(record, insert);
    if (!WatchSleep(kWaitPause)) return false;
  }
  return true;
}

/// Every entry up to the first missing one runs, as an insert's command, whatever came of the
/// others.
void RunEntries(config::CConfig& config, const CWatchOptions& record, const char* section) {
  char key[kEntryKeySize];
  char text[runtime::kTextSize];
  for (unsigned number = 1;; ++number) {
    FormatEntryKey(number, key);
    if (!config::ReadConfigText(config, section, key, text, true)) return;
    if (!ExecuteCommand(0, true, text, record.insertWait, record.hideInsert == 0,
                        record.terminate != 0)) {
      runtime::TraceWrite("Watch - Simulate %s at %s failed",
                          runtime::MaskedText(record.simulate).Text(), key);
    }
  }
}

}  // namespace

int SimulateEvent(const CWatchOptions& record) {
  config::CConfig config;
  if (!LoadProductConfiguration(config)) return 0;

  const bool insert = runtime::EqualsNoCase(runtime::TextOf(record.simulate), "INSERT");
  if (!WaitBeforeSimulation(config, record, insert)) return 0;
  char section[kEventSectionSize];
  if (BuildEventSection(insert, record.section, section)) RunEntries(config, record, section);
  return 0;
}

}  // namespace qixx::watch
