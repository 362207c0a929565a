#include "watch/simulate.h"

#include "config/store.h"
#include "runtime/secrets.h"
#include "runtime/trace.h"
#include "watch/command.h"
#include "watch/event_table.h"
#include "watch/stop.h"

namespace qixx {
namespace {

/// Waits as an insert does, for either kind; false when there is nothing worth waiting for, or when
/// the process is asked to stop.
bool WaitBeforeSimulation(CConfig& config, const CWatchOptions& record, bool insert) {
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
void RunEntries(CConfig& config, const CWatchOptions& record, const char* section) {
  char key[kEntryKeySize];
  char text[kTextSize];
  for (unsigned number = 1;; ++number) {
    FormatEntryKey(number, key);
    if (!ReadConfigText(config, section, key, text, true)) return;
    if (!ExecuteCommand(0, true, text, record.insertWait, record.hideInsert == 0,
                        record.terminate != 0)) {
      TraceWrite("Watch - Simulate %s at %s failed", MaskedText(record.simulate).Text(), key);
    }
  }
}

}  // namespace

int SimulateEvent(const CWatchOptions& record) {
  CConfig config;
  if (!LoadProductConfiguration(config)) return 0;

  const bool insert = EqualsNoCase(TextOf(record.simulate), "INSERT");
  if (!WaitBeforeSimulation(config, record, insert)) return 0;
  char section[kEventSectionSize];
  if (BuildEventSection(insert, record.section, section)) RunEntries(config, record, section);
  return 0;
}

}  // namespace qixx
