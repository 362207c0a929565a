#include "watch/terminate_list.h"

#include <algorithm>
#include <array>

#include "runtime/no_destructor.h"
#include "runtime/process.h"
#include "runtime/sync.h"
#include "runtime/trace.h"

namespace qixx::watch {
namespace {

struct TerminateEntry {
  std::uint64_t slot = 0;
  std::uint64_t processId = 0;  ///< 0 marks a free entry

  [[nodiscard]] bool IsFree() const { return processId == 0; }
};

struct TerminateList {
  runtime::CCritical lock;
  std::array<TerminateEntry, kMaxTracked> entries;
};

// In static storage and never destroyed: a command on a thread of its own may reach it while the
// process ends.
TerminateList& List() {
  static runtime::NoDestructor<TerminateList> list;
  return *list;
}

void DropIfExited(TerminateEntry& entry) {
  if (entry.IsFree() || runtime::IsProcessRunning(entry.processId)) return;
  runtime::TraceWrite("Watch - Process %d exited", static_cast<int>(entry.processId));
  entry = TerminateEntry{};
}

// The entry is given up also when its process does not end: there is nothing more to do about it.
void Terminate(TerminateEntry& entry) {
  runtime::TraceWrite("Watch - Terminate process %d", static_cast<int>(entry.processId));
  runtime::EndProcess(entry.processId);
  entry = TerminateEntry{};
}

}  // namespace

void AddToTerminateList(EventKind kind, CK_SLOT_ID slot, std::uint64_t processId) {
  if (kind != EventKind::kInsert || processId == 0) return;
  TerminateList& list = List();
  const runtime::CriticalScope hold(&list.lock);
  const auto entry = std::ranges::find_if(list.entries, &TerminateEntry::IsFree);
  if (entry == list.entries.end()) return;
  *entry = {slot, processId};
  runtime::TraceWrite("Watch - Insert %d to terminate list (%d)", static_cast<int>(processId),
                      static_cast<int>(slot));
}

void SweepTerminateList(EventKind kind, CK_SLOT_ID slot) {
  TerminateList& list = List();
  const runtime::CriticalScope hold(&list.lock);
  for (TerminateEntry& entry : list.entries) {
    DropIfExited(entry);
    // Only inserts start what is in the list, and only removals end it.
    const bool isOfSlot = !entry.IsFree() && entry.slot == slot;
    if (isOfSlot && kind == EventKind::kRemove) Terminate(entry);
  }
}

bool IsSlotProcessRunning(CK_SLOT_ID slot) {
  TerminateList& list = List();
  const runtime::CriticalScope hold(&list.lock);
  bool running = false;
  for (TerminateEntry& entry : list.entries) {
    DropIfExited(entry);
    if (!entry.IsFree() && entry.slot == slot) running = true;
  }
  return running;
}

}  // namespace qixx::watch
