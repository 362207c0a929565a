// The part of a listing that the card library tells.
#pragma once

#include <string>

#include "watch/list.h"

namespace qixx::watch {

/// Initialises the library, asks it for all that a listing holds, and finalises it. `match` is that
/// of the watch command, empty for none. What fails is noted and passed over.
void ListLibrary(const std::string& match, Listing& listing);

}  // namespace qixx::watch
