#include "watch/options.h"

#include <algorithm>

#include "config/store.h"

namespace qixx::watch {
namespace {

constexpr char kQuote = '"';
/// Short texts that are only read for a number or a name.
constexpr std::size_t kScratchSize = 100;

/// The text still to be parsed, taken piece by piece from its head.
class OptionText {
 public:
  explicit OptionText(std::string_view text) : left_(text) {}

  [[nodiscard]] std::string_view Left() const { return left_; }
  void SkipLeadingBlanks() { left_ = runtime::SkipBlanks(left_); }

  /// Consumes `literal` when the text begins with it.
  bool Take(std::string_view literal) {
    if (!runtime::StartsWithNoCase(left_, literal)) return false;
    left_.remove_prefix(literal.size());
    return true;
  }
  /// The text up to the next double-quote character, which is consumed; all of it without one.
  std::string_view TakeToQuote() {
    const std::size_t end = std::min(runtime::FindChar(left_, kQuote), left_.size());
    const std::string_view value = left_.substr(0, end);
    left_.remove_prefix(std::min(end + 1, left_.size()));
    return value;
  }
  /// The same with the one character that separates a quoted value from the next option.
  std::string_view TakeQuotedValue() {
    const std::string_view value = TakeToQuote();
    if (!left_.empty()) left_.remove_prefix(1);
    return value;
  }

 private:
  std::string_view left_;
};

void SkipVerb(OptionText& text) {
  for (const std::string_view verb : {"ServiceMain ", "-start ", "-stop ", "-i ", "-u "}) {
    if (text.Take(verb)) return;
  }
}

/// The last word inside the quotes of a leading "-s" or "-b" names the section.
void ParseSectionOption(OptionText& text, CWatchOptions& record) {
  if (!text.Take("-s \"") && !text.Take("-b \"")) return;
  char words[kScratchSize];
  runtime::CopyTextCut(words, text.TakeToQuote());
  const std::size_t blank = runtime::FindCharBack(words, ' ');
  if (blank != std::string_view::npos)
    runtime::CopyTextCut(record.section, runtime::TextOf(words).substr(blank + 1));
}

void SetFlag(std::string_view text, std::string_view name, std::uint8_t& flag) {
  if (GetOptionValue(text, name, {})) flag = 1;
}

/// The program is stored even when the text then turns out to have another form.
bool TakeKeywordForm(std::string_view text, CWatchOptions& record) {
  return GetOptionValue(text, "-p", record.program) &&
         (GetOptionValue(text, "-r", record.registry) ||
          GetOptionValue(text, "-c", record.configFile));
}

void ParseKeywordForm(std::string_view text, CWatchOptions& record) {
  if (!GetOptionValue(text, "-match", record.match)) record.match[0] = '\0';
  SetFlag(text, "-hide", record.hideInsert);
  SetFlag(text, "-sync", record.sync);
  SetFlag(text, "-term", record.terminate);
  SetFlag(text, "-recognized", record.recognized);
  SetFlag(text, "-t", record.terminate);
  GetOptionValue(text, "-a", record.arguments);

  char number[kScratchSize] = {};
  GetOptionValue(text, "-n", number);
  record.roundLimit = number[0] == '\0' ? kEndlessRounds : runtime::ParseDecimal(number);

  // The name ends in a blank, so that only a second blank or the end makes it match.
  GetOptionValue(text, "-m ", record.message);

  number[0] = '\0';
  GetOptionValue(text, "-w", number);
  if (number[0] != '\0') record.insertWait = runtime::ParseDecimal(number);
}

void ParseWaits(std::string_view quoted, CWatchOptions& record) {
  char waits[kScratchSize];
  runtime::CopyTextCut(waits, quoted);
  record.insertWait = runtime::ParseDecimal(waits);
  std::string_view second;
  if (runtime::GetField(runtime::TextOf(waits), 1, '|', second))
    record.removeWait = runtime::ParseDecimal(second);
}

void ParseMessages(std::string_view quoted, CWatchOptions& record) {
  const std::size_t bar = runtime::FindChar(quoted, '|');
  runtime::CopyTextCut(record.message, quoted.substr(0, bar));
  if (bar != std::string_view::npos) runtime::CopyTextCut(record.message2, quoted.substr(bar + 1));
}

void ParseHide(OptionText& text, CWatchOptions& record) {
  if (text.Take("insert ")) {
    record.hideInsert = 1;
  } else if (text.Take("remove ")) {
    record.hideRemove = 1;
  } else {
    record.hideInsert = 1;
    record.hideRemove = 1;
  }
}

/// Each option is tested once, in this order, at the current place; nothing is skipped between
/// them.
void ParsePositionalForm(OptionText& text, CWatchOptions& record) {
  if (text.Take("-w ")) record.waitFlag = 1;
  if (text.Take("-match \"")) runtime::CopyTextCut(record.match, text.TakeQuotedValue());
  if (text.Take("-wait \"")) ParseWaits(text.TakeQuotedValue(), record);
  if (text.Take("-message \"")) ParseMessages(text.TakeQuotedValue(), record);
  if (text.Take("-hide ")) ParseHide(text, record);
  if (text.Take("-sync ")) record.sync = 1;
  if (text.Take("-term ")) record.terminate = 1;
  if (text.Take("-recognized ")) record.recognized = 1;
  if (text.Take("-simulate \"")) runtime::CopyTextCut(record.simulate, text.TakeQuotedValue());
  if (record.simulate[0] == '\0' && !text.Left().empty())
    runtime::CopyTextCut(record.rest, text.Left());
  record.roundLimit = kEndlessRounds;
}

bool ParseOptions(std::string_view line, CWatchOptions& record) {
  OptionText text(line);
  SkipVerb(text);
  ParseSectionOption(text, record);
  text.SkipLeadingBlanks();
  if (TakeKeywordForm(text.Left(), record)) {
    ParseKeywordForm(text.Left(), record);
    return false;
  }
  ParsePositionalForm(text, record);
  return !text.Left().empty();
}

/// A value that only the environment gives is a failed read and does not count here.
void ReadBackground(CWatchOptions& record) {
  config::CConfig config;
  if (config.OpenDefault(false) != config::kConfigOk ||
      config.GetString(record.section, "Background", record.background, true) !=
          config::kConfigOk) {
    record.background[0] = '\0';
  }
}

}  // namespace

bool ParseWatchOptions(std::string_view text, CWatchOptions& record) {
  const bool textLeft = !text.empty() && ParseOptions(text, record);
  if (record.section[0] == '\0') runtime::CopyTextCut(record.section, kDefaultSection);
  ReadBackground(record);
  return textLeft;
}

bool GetOptionValue(std::string_view text, std::string_view name, std::span<char> out) {
  std::size_t at = runtime::FindTextNoCase(text, name);
  while (at != std::string_view::npos) {
    const std::string_view behind = text.substr(at + name.size());
    if (behind.empty() || behind.front() == ' ') break;
    at = runtime::FindTextNoCase(text, name, at + name.size());
  }
  if (at == std::string_view::npos) return false;
  if (out.empty()) return true;

  std::string_view value = runtime::SkipBlanks(text.substr(at + name.size()));
  if (value.starts_with(kQuote)) {
    value.remove_prefix(1);
    value = value.substr(0, runtime::FindChar(value, kQuote));
  } else if (value.starts_with('-')) {
    value = {};
  } else {
    value = value.substr(0, runtime::FindChar(value, ' '));
  }
  runtime::CopyTextCut(out, value);
  return true;
}

}  // namespace qixx::watch
