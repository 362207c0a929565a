// Texts that a card, or a library that a command calls, says of itself.
#pragma once

#include <string>

namespace qixx::watch {

/// Makes such a text harmless for command lines and configuration files: control characters, double
/// quotes and a '>' that stands alone (between blanks, ends and '%') become '_'. Parts of a cleaned
/// text are to be cleaned again, since a '>' may stand alone in them. The length stays.
[[nodiscard]] std::string CleanCardText(std::string text);

}  // namespace qixx::watch
