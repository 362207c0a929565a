// Running one event section once, without a card.
#pragma once

#include "watch/options.h"

namespace qixx::watch {

/// Runs the event section that the record's `simulate` names. Returns 0.
int SimulateEvent(const CWatchOptions& record);

}  // namespace qixx::watch
