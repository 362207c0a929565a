// The processes started on insert that the matching removal ends.
//
// One process-wide table of 100 entries under one lock; all operations may be called from any
// thread and hold the lock for their whole run. Nothing is thrown.
#pragma once

#include <cstddef>
#include <cstdint>

#include "pkcs11/cryptoki.h"
#include "watch/event.h"

namespace qixx::watch {

inline constexpr std::size_t kMaxTracked = 100;

/// Remembers a process of an insert; a full list drops it silently, a removal adds nothing.
void AddToTerminateList(EventKind kind, CK_SLOT_ID slot, std::uint64_t processId);
/// Drops exited processes. A removal's sweep also ends what was started on insert for the slot.
void SweepTerminateList(EventKind kind, CK_SLOT_ID slot);
/// Drops exited processes; true when any left belongs to the slot.
[[nodiscard]] bool IsSlotProcessRunning(CK_SLOT_ID slot);

}  // namespace qixx::watch
