// Running one event section once, without a card.
#pragma once

#include "watch/options.h"
#include "watch/platform.h"

namespace qixx::watch {

/// Runs the event section that the record's `simulate` names. Returns 0.
int SimulateEvent(const CWatchOptions& record, const Platform& platform);

}  // namespace qixx::watch
