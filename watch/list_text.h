// A listing for people.
#pragma once

#include <string>

#include "watch/list.h"

namespace qixx::watch {

/// The listing in lines of at most 79 characters; longer values go on in the next line, below their
/// beginning. Bytes that are not UTF-8, and characters that control a terminal or turn the
/// direction of writing, are shown as "\x9b" and "\u202e".
[[nodiscard]] std::string TextOf(const Listing& listing);

}  // namespace qixx::watch
