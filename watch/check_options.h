// A watch command under check: the options in front of "config" or of a command.
#pragma once

#include <string>
#include <string_view>

#include "runtime/secrets.h"
#include "watch/check_report.h"
#include "watch/options.h"

namespace qixx::watch {

/// What becomes of a watch command, and what in it was not taken as it was meant.
[[nodiscard]] CWatchOptions CheckWatchCommand(const Report& report, std::string_view text);

/// The options of a watcher, read from the line, in a few words; empty when there are none.
[[nodiscard]] std::string DescribeOptions(const CWatchOptions& record,
                                          const runtime::MaskedLine& line);

}  // namespace qixx::watch
