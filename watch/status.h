// What the watch says of itself to the service manager.
#pragma once

#include <ctime>
#include <string>

#include "watch/card_reader.h"

namespace qixx::watch {

/// One line for people: the card of the connected slot, with the local time of its insertion, or
/// why there is none. Asks the card reader.
[[nodiscard]] std::string DescribeStatus(CardReader& card, CK_SLOT_ID connected, std::time_t since);

}  // namespace qixx::watch
