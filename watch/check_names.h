// Names under check: sections and entries that nothing reads, or not from the file they stand in.
#pragma once

#include <span>

#include "watch/check_file.h"
#include "watch/check_watchers.h"

namespace qixx::watch {

/// Of all files. Values and lists that no other step reads have their lengths and their numbers
/// checked here, too.
void CheckNames(const CheckedConfiguration& configuration, std::span<const CheckedWatcher> watchers,
                Mistakes& mistakes);

}  // namespace qixx::watch
