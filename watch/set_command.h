// The set command: the card holder's logon values go into a configuration file and out of it again.
//
// All operations may be called from any thread. Only std::bad_alloc is thrown.
#pragma once

#include <string>
#include <string_view>

#include "watch/card_reader.h"
#include "watch/event.h"
#include "watch/options.h"

namespace qixx::watch {

/// The options of a set command, each empty when it is absent.
struct SetOptions {
  std::string match;     ///< which card's certificate counts
  std::string registry;  ///< no such place exists on this platform, but naming one is a success
  std::string config;    ///< the file; a set command refuses a name of more than kMaxOption
  bool restore = false;  ///< a removal puts the saved copy back before it clears the values

  [[nodiscard]] bool IsEmpty() const { return match.empty() && registry.empty() && config.empty(); }
};

/// "-match", "-registry", "-config" and "-restore" of a command's text.
[[nodiscard]] SetOptions ParseSetOptions(std::string_view text);
/// What a watcher of the keyword form sets; it always restores. None of its values goes beyond a
/// double quote.
[[nodiscard]] SetOptions SetOptionsOf(const CWatchOptions& record);

/// On insert the values of the card are written, on removal empty ones. A simulated insert fails
/// before the card is asked.
bool SetCommand(CardReader& card, const WatchEvent& event, const SetOptions& options);
/// The same without a call, and a failure, when there are no options.
bool RunSetCommand(CardReader& card, const WatchEvent& event, const SetOptions& options);

}  // namespace qixx::watch
