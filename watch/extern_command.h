// The extern command: a library tells the logon values.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "watch/card_reader.h"
#include "watch/event.h"

namespace qixx::watch {

struct ExternParts {
  std::string library;
  std::string arguments;
  std::string file;  ///< "-config" of the arguments, of any length
};
/// Nothing without the comma behind the library.
[[nodiscard]] std::optional<ExternParts> ParseExtern(std::string_view text);

/// "library path,arguments": calls the library's "ReadCommand" with the name of the event's reader
/// and the arguments. What it answers goes into the file that "-config" of the arguments names.
/// True when the library answered; a name of a file that is too long is refused before it is asked.
/// A simulated event fails before the card is asked.
bool RunExtern(CardReader& card, const WatchEvent& event, std::string_view text);

}  // namespace qixx::watch
