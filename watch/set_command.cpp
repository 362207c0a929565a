#include "watch/set_command.h"

#include <optional>

#include "runtime/notice.h"
#include "runtime/trace.h"
#include "watch/credentials.h"
#include "watch/guard.h"
#include "watch/logon_file.h"

namespace qixx::watch {
namespace {

bool SetOnInsert(CardReader& card, const WatchEvent& event, const SetOptions& options) {
  if (event.IsSimulated()) return false;
  const std::optional<LogonValues> values = FindLogonCredential(card, options.match, event.slot);
  if (!values) {
    runtime::NotifyOnce("'set' finds no certificate that gives a logon name");
    return false;
  }
  runtime::TraceWrite("Watch - Logon credential: '%s'", values->upn.c_str());
  runtime::TraceWrite("Watch - Logon subject:    '%s'", values->subject.c_str());
  if (options.config.empty()) return !options.registry.empty();
  return WriteLogonValues(options.config, *values, event.cardsGone);
}

bool SetOnRemove(const SetOptions& options) {
  if (options.config.empty()) return !options.registry.empty();
  return ClearLogonValues(options.config, options.restore);
}

std::string UpToQuote(std::string_view value) {
  return std::string(value.substr(0, value.find('"')));
}

}  // namespace

SetOptions ParseSetOptions(std::string_view text) {
  return {.match = GetCommandOption(text, "-match").value_or(""),
          .registry = GetCommandOption(text, "-registry").value_or(""),
          .config = GetCommandOption(text, "-config", kWholeOption).value_or(""),
          .restore = GetCommandOption(text, "-restore").has_value()};
}

SetOptions SetOptionsOf(const CWatchOptions& record) {
  return {.match = UpToQuote(record.match),
          .registry = UpToQuote(record.registry),
          .config = UpToQuote(record.configFile),
          .restore = true};
}

bool SetCommand(CardReader& card, const WatchEvent& event, const SetOptions& options) {
  runtime::TraceWrite("Watch - Set command ...");
  bool success = false;
  const AtExit end(
      [&success] { runtime::TraceWrite("Watch - Set command ... %s", success ? "OK" : "FAILED"); });
  if (options.config.size() > kMaxOption) return false;
  success = event.IsInsert() ? SetOnInsert(card, event, options) : SetOnRemove(options);
  return success;
}

bool RunSetCommand(CardReader& card, const WatchEvent& event, const SetOptions& options) {
  return !options.IsEmpty() && SetCommand(card, event, options);
}

}  // namespace qixx::watch
