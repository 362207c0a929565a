// One command text under check. Nothing is started and nothing is written.
#pragma once

#include <string>
#include <string_view>

#include "runtime/secrets.h"
#include "watch/check_report.h"
#include "watch/event.h"
#include "watch/options.h"

namespace qixx::watch {

/// What is known of a command beside its text.
struct CommandUse {
  EventKind kind = EventKind::kInsert;
  bool isFilled = false;  ///< its placeholders are replaced
};

/// Looks at programs, libraries, documents, files to fill, quotes and placeholders.
void CheckCommand(const Report& report, const CommandUse& use, std::string_view text);
/// The program of the keyword form and its file, where no placeholder is replaced.
void CheckKeywordCommand(const Report& report, const CWatchOptions& record);

/// What the command, which is a part of the line, does in a few words.
[[nodiscard]] std::string DescribeCommand(EventKind kind, std::string_view text,
                                          const runtime::MaskedLine& line);

}  // namespace qixx::watch
