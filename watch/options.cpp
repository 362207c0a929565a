#include "watch/options.h"

#include <algorithm>
#include <cctype>

#include "watch/option_table.h"

namespace qixx::watch {
namespace {

constexpr char kQuote = '"';
constexpr char kBar = '|';
/// Texts that are only read for a number or a name count up to here.
constexpr std::size_t kMaxScratch = 99;

// What is still to be parsed of a text is taken piece by piece from its head.

/// Consumes `literal` when the text begins with it.
bool Take(std::string_view& text, std::string_view literal) {
  if (!runtime::StartsWithNoCase(text, literal)) return false;
  text.remove_prefix(literal.size());
  return true;
}

/// The text up to the next double-quote character, which is consumed; all of it without one.
std::string_view TakeToQuote(std::string_view& text) {
  const std::size_t end = std::min(text.find(kQuote), text.size());
  const std::string_view value = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return value;
}

/// The same with the one character that separates a quoted value from the next option.
std::string_view TakeQuotedValue(std::string_view& text) {
  const std::string_view value = TakeToQuote(text);
  if (!text.empty()) text.remove_prefix(1);
  return value;
}

/// Stores a value in a field of the record.
void Store(std::string& field, std::string_view value) {
  field = value.substr(0, kMaxOption);
}

/// Whether a place lies between two double quotes; one that is never closed opens nothing.
bool IsQuoted(std::string_view text, std::size_t place) {
  std::size_t open = text.find(kQuote);
  while (open < place) {
    const std::size_t close = text.find(kQuote, open + 1);
    if (close == std::string_view::npos) return false;
    if (place < close) return true;
    open = text.find(kQuote, close + 1);
  }
  return false;
}

enum class Places { kAll, kOfCommands };

/// The text behind the first occurrence of an option that counts.
std::optional<std::string_view> BehindOption(std::string_view text, std::string_view name,
                                             Places places) {
  for (std::size_t at = runtime::FindTextNoCase(text, name); at != std::string_view::npos;
       at = runtime::FindTextNoCase(text, name, at + name.size())) {
    const std::string_view behind = text.substr(at + name.size());
    if (!behind.empty() && behind.front() != ' ') continue;
    if (places == Places::kAll || (IsOptionPlace(text, at) && !IsQuoted(text, at))) return behind;
  }
  return std::nullopt;
}

/// The value behind an option, as GetCommandOption gives it.
std::optional<std::string> GetOptionValue(std::string_view text, std::string_view name,
                                          std::size_t maxLength = kMaxOption,
                                          Places places = Places::kAll) {
  const std::optional<std::string_view> behind = BehindOption(text, name, places);
  if (!behind) return std::nullopt;
  std::string_view value = runtime::SkipBlanks(*behind);
  if (value.starts_with(kQuote)) {
    value.remove_prefix(1);
    value = value.substr(0, value.find(kQuote));
  } else if (value.starts_with('-')) {
    value = {};
  } else {
    value = value.substr(0, value.find(' '));
  }
  return std::string(value.substr(0, maxLength));
}

/// Leaves the field alone when there is no such option.
bool StoreOption(std::string_view text, std::string_view name, std::string& field,
                 std::size_t maxLength = kMaxOption) {
  std::optional<std::string> value = GetOptionValue(text, name, maxLength);
  if (value) field = std::move(*value);
  return value.has_value();
}

void SkipVerb(std::string_view& text) {
  for (const std::string_view verb : {"ServiceMain ", "-start ", "-stop ", "-i ", "-u "}) {
    if (Take(text, verb)) return;
  }
}

/// The last word inside the quotes of a leading "-s" or "-b" names the section.
void ParseSectionOption(std::string_view& text, CWatchOptions& record) {
  if (!Take(text, "-s \"") && !Take(text, "-b \"")) return;
  const std::string_view words = TakeToQuote(text).substr(0, kMaxScratch);
  const std::size_t blank = words.rfind(' ');
  if (blank != std::string_view::npos) Store(record.section, words.substr(blank + 1));
}

// --- keyword form -----------------------------------------------------------------------------

/// The program is stored even when the text then turns out to have another form.
bool TakeKeywordForm(std::string_view text, CWatchOptions& record) {
  return StoreOption(text, "-p", record.program, kWholeOption) &&
         (StoreOption(text, "-r", record.registry) ||
          StoreOption(text, "-c", record.configFile, kWholeOption));
}

/// The text of an option that is read for its number; empty when it is absent.
std::string NumberText(std::string_view text, std::string_view name) {
  return GetOptionValue(text, name, kMaxScratch).value_or("");
}

void ParseKeywordForm(std::string_view text, CWatchOptions& record) {
  if (!StoreOption(text, "-match", record.match)) record.match.clear();
  if (GetOptionValue(text, "-hide")) record.hideInsert = true;
  if (GetOptionValue(text, "-sync")) record.sync = true;
  if (GetOptionValue(text, "-term") || GetOptionValue(text, "-t")) record.terminate = true;
  if (GetOptionValue(text, "-recognized")) record.recognized = true;
  StoreOption(text, "-a", record.arguments);
  const std::string rounds = NumberText(text, "-n");
  record.roundLimit = rounds.empty() ? kEndlessRounds : runtime::ParseDecimal(rounds);
  // The name ends in a blank, so that only a second blank or the end makes it match.
  StoreOption(text, "-m ", record.message);
  const std::string wait = NumberText(text, "-w");
  if (!wait.empty()) record.insertWait = runtime::ParseDecimal(wait);
}

// --- positional form --------------------------------------------------------------------------

void ParseWaits(std::string_view quoted, CWatchOptions& record) {
  const std::string_view waits = quoted.substr(0, kMaxScratch);
  record.insertWait = runtime::ParseDecimal(waits);
  const std::size_t bar = waits.find(kBar);
  if (bar != std::string_view::npos)
    record.removeWait = runtime::ParseDecimal(waits.substr(bar + 1));
}

void ParseMessages(std::string_view quoted, CWatchOptions& record) {
  const std::size_t bar = quoted.find(kBar);
  Store(record.message, quoted.substr(0, bar));
  if (bar != std::string_view::npos) Store(record.message2, quoted.substr(bar + 1));
}

void ParseHide(std::string_view& text, CWatchOptions& record) {
  const bool insertOnly = Take(text, "insert ");
  const bool removeOnly = !insertOnly && Take(text, "remove ");
  if (!removeOnly) record.hideInsert = true;
  if (!insertOnly) record.hideRemove = true;
}

void ReadOption(PositionalOption option, std::string_view& text, CWatchOptions& record) {
  switch (option) {
    case PositionalOption::kWaitFlag:
      record.waitFlag = true;
      break;
    case PositionalOption::kMatch:
      Store(record.match, TakeQuotedValue(text));
      break;
    case PositionalOption::kWait:
      ParseWaits(TakeQuotedValue(text), record);
      break;
    case PositionalOption::kMessage:
      ParseMessages(TakeQuotedValue(text), record);
      break;
    case PositionalOption::kHide:
      ParseHide(text, record);
      break;
    case PositionalOption::kSync:
      record.sync = true;
      break;
    case PositionalOption::kTerminate:
      record.terminate = true;
      break;
    case PositionalOption::kRecognized:
      record.recognized = true;
      break;
    case PositionalOption::kSimulate:
      record.simulate = TakeQuotedValue(text).substr(0, kMaxSimulate);
      break;
  }
}

/// Each option is tested once, in the order of the table, at the current place; nothing is skipped
/// between them.
void ParsePositionalForm(std::string_view& text, CWatchOptions& record) {
  for (const PositionalRow& row : kPositionalOptions) {
    if (Take(text, row.head)) ReadOption(row.option, text, record);
  }
  if (record.simulate.empty() && !text.empty()) Store(record.rest, text);
  record.roundLimit = kEndlessRounds;
}

bool ParseOptions(std::string_view text, CWatchOptions& record) {
  SkipVerb(text);
  ParseSectionOption(text, record);
  text = runtime::SkipBlanks(text);
  if (TakeKeywordForm(text, record)) {
    ParseKeywordForm(text, record);
    return false;
  }
  ParsePositionalForm(text, record);
  return !text.empty();
}

}  // namespace

bool ParseWatchOptions(std::string_view text, CWatchOptions& record) {
  const bool textLeft = !text.empty() && ParseOptions(text, record);
  if (record.section.empty()) record.section = kDefaultSection;
  return textLeft;
}

bool IsOptionPlace(std::string_view text, std::size_t place) {
  if (place == 0) return true;
  const char before = text[place - 1];
  return runtime::IsAscii(before) && std::isalnum(before) == 0 && before != '_';
}

std::optional<std::string> GetCommandOption(std::string_view text, std::string_view name,
                                            std::size_t maxLength) {
  return GetOptionValue(text, name, maxLength, Places::kOfCommands);
}

}  // namespace qixx::watch
