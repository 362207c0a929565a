// An event as its commands see it.
#pragma once

#include <cstdint>
#include <string>

#include "pkcs11/cryptoki.h"
#include "watch/edit_in_time.h"
#include "watch/options.h"

namespace qixx::watch {

enum class EventKind { kInsert, kRemove };

/// What the handlers know of an event and of its settings; made once, handed down to the command.
struct WatchEvent {
  EventKind kind = EventKind::kInsert;
  CK_SLOT_ID slot = 0;
  std::string match = {};            ///< which card's certificate counts
  std::uint64_t wait = 0;            ///< seconds to wait in front of the commands
  bool show = true;                  ///< programs are not started hidden
  bool terminate = false;            ///< programs are remembered for the removal
  unsigned cardsGone = CardsGone();  ///< before it

  [[nodiscard]] bool IsInsert() const { return kind == EventKind::kInsert; }
  /// An insert of a card always has a slot, so only a simulation inserts into none.
  [[nodiscard]] bool IsSimulated() const { return IsInsert() && slot == 0; }
};

/// An event with the record's settings for its kind.
[[nodiscard]] inline WatchEvent EventOf(const CWatchOptions& record, EventKind kind,
                                        CK_SLOT_ID slot) {
  const bool insert = kind == EventKind::kInsert;
  return {.kind = kind,
          .slot = slot,
          .match = record.match,
          .wait = insert ? record.insertWait : record.removeWait,
          .show = !(insert ? record.hideInsert : record.hideRemove),
          .terminate = record.terminate};
}

}  // namespace qixx::watch
