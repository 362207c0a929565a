// Commands on threads of their own.
#pragma once

#include <cstddef>
#include <string_view>

#include "watch/card_reader.h"
#include "watch/event.h"

namespace qixx::watch {

/// Longest "parallel " command; a longer one is refused.
inline constexpr std::size_t kMaxParallelCommand = 255;

/// Runs the command on a thread of its own. Returns whether that was started.
bool RunParallel(CardReader& card, const WatchEvent& event, std::string_view text);

/// To be called before the commands of a card that counts: what a removal's commands had no means
/// for is not tried again.
void ForgetOwedParallelJobs();

}  // namespace qixx::watch
