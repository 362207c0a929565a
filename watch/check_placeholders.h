// Placeholders in a command text under check.
#pragma once

#include <string_view>

#include "watch/check_report.h"

namespace qixx::watch {

/// Whether a value of a card may come into the text.
[[nodiscard]] bool HoldsPlaceholder(std::string_view text);

/// Placeholders that are misspelt, that have no end, and, where `isFilled` is false, that stay.
void CheckPlaceholders(const Place& place, bool isFilled, std::string_view text,
                       Mistakes& mistakes);

}  // namespace qixx::watch
