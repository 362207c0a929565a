#include "watch/event_table.h"

#include "runtime/notice.h"
#include "runtime/secrets.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "watch/command.h"
#include "watch/configuration.h"

namespace qixx::watch {
namespace {

/// " Insert" and " Remove" are equally long.
constexpr std::size_t kMaxWatchSection = kMaxEventSection - std::string_view(" Insert").size();

/// "Watch" itself, else "Watch " and the name; nothing when that is too long.
std::optional<std::string> BuildWatchSection(std::string_view name) {
  constexpr std::string_view kPrefix = "Watch ";
  if (name.size() + kPrefix.size() > kMaxWatchSection) return std::nullopt;
  return name == kDefaultSection ? std::string(name) : std::string(kPrefix).append(name);
}

}  // namespace

CommandForm FormOf(const CWatchOptions& record) {
  if (record.rest.empty()) return CommandForm::kKeyword;
  return runtime::EqualsNoCase(record.rest, kConfigWord) ? CommandForm::kSection
                                                         : CommandForm::kDirect;
}

std::optional<std::string> BuildEventSection(EventKind kind, std::string_view name) {
  std::optional<std::string> section = BuildWatchSection(name);
  if (section) section->append(kind == EventKind::kInsert ? " Insert" : " Remove");
  runtime::TraceWrite("Watch - Configuration: '%s'",
                      runtime::MaskedText(section.value_or("")).Text());
  return section;
}

std::optional<std::string> ReadEventEntry(config::CConfig& config, const std::string& section,
                                          unsigned number, std::size_t maxLength) {
  std::optional<config::ConfigValue> entry =
      config.GetString(section, std::to_string(number), maxLength);
  if (!entry) return std::nullopt;
  return std::move(entry->text);
}

bool HasFirstEntry(config::CConfig& config, const std::optional<std::string>& section) {
  if (!section) return false;
  const std::optional<std::string> first = ReadEventEntry(config, *section, 1, kMaxRemoveEntry);
  return first && !first->empty();
}

bool HasEventCommands(const CWatchOptions& record) {
  if (FormOf(record) != CommandForm::kSection)
    return !record.rest.empty() || !record.program.empty();
  config::CConfig config;
  if (!LoadProductConfiguration(config)) return false;
  // Both are asked, since each question shows in the trace.
  const bool onInsert =
      HasFirstEntry(config, BuildEventSection(EventKind::kInsert, record.section));
  const bool onRemove =
      HasFirstEntry(config, BuildEventSection(EventKind::kRemove, record.section));
  return onInsert || onRemove;
}

void NotifyWithoutCommands(const CWatchOptions& record) {
  if (FormOf(record) != CommandForm::kSection) {
    return runtime::NotifyOnce("nothing to run: no command, and no 'config', behind the options");
  }
  const std::optional<std::string> name = BuildWatchSection(record.section);
  if (!name) return runtime::NotifyOnce("nothing to run: the watcher's name is too long");
  const std::string shown = runtime::MaskSecrets(*name);
  runtime::NotifyOnce("nothing to run: " + WhyMissing("entry 1 in section '" + shown +
                                                      " Insert' or '" + shown + " Remove'"));
}

bool HasOrdinaryRemoveCommand(config::CConfig& config, std::string_view name, EventKind kind) {
  const std::optional<std::string> section = BuildEventSection(kind, name);
  if (!section) return false;
  for (unsigned number = 1;; ++number) {
    const std::optional<std::string> text =
        ReadEventEntry(config, *section, number, kMaxRemoveEntry);
    if (!text) return false;
    // In the remove section such an entry would only send the scan back to its own start.
    if (kind == EventKind::kRemove && runtime::StartsWithNoCase(*text, kConfigWord)) continue;
    if (IsOrdinaryCommand(config, name, *text)) return true;
  }
}

bool IsOrdinaryCommand(config::CConfig& config, std::string_view name, std::string_view text) {
  if (runtime::StartsWithNoCase(text, kConfigWord))
    return HasOrdinaryRemoveCommand(config, name, EventKind::kRemove);
  return !runtime::StartsWithNoCase(text, kCloseKeyword) &&
         !runtime::StartsWithNoCase(text, kKillKeyword);
}

}  // namespace qixx::watch
