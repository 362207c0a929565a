// A listing for programs.
#pragma once

#include <string>
#include <string_view>

#include "watch/list.h"

namespace qixx::watch {

/// The listing as one JSON object (RFC 8259), which qixxwatch(1) describes, with a line end. It is
/// UTF-8 whatever the texts hold: bytes that are not become U+FFFD. Characters that control a
/// terminal or turn the direction of writing are escaped.
[[nodiscard]] std::string JsonOf(const Listing& listing, std::string_view version);

}  // namespace qixx::watch
