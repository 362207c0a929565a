// What the service would do by a configuration, in words.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "watch/check_lists.h"
#include "watch/check_values.h"
#include "watch/check_watchers.h"

namespace qixx::watch {

/// Commands are left out once the text has this length.
inline constexpr std::size_t kMaxSummary = 65536;

/// The files, then each watcher with its options and its commands. `reason` is why the system's
/// file is this one.
[[nodiscard]] std::string DescribeConfiguration(const CheckedConfiguration& configuration,
                                                std::string_view reason,
                                                std::span<const CheckedWatcher> watchers,
                                                EventLists& lists);

}  // namespace qixx::watch
