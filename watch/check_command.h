// One command text under check. Nothing is started and nothing is written.
#pragma once

#include <string>
#include <string_view>

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
void CheckCommand(const Place& place, const CommandUse& use, std::string_view text,
                  Mistakes& mistakes);
/// A program that is named by its path alone, and its arguments, whose placeholders stay.
void CheckProgramOption(const Place& place, std::string_view program, std::string_view arguments,
                        Mistakes& mistakes);
/// A file that logon values are written to.
void CheckTarget(const Place& place, std::string_view file, Mistakes& mistakes);

/// What the command does, in a few words.
[[nodiscard]] std::string DescribeCommand(EventKind kind, std::string_view text);

}  // namespace qixx::watch
