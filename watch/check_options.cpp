#include "watch/check_options.h"

#include <algorithm>
#include <vector>

#include "runtime/text.h"
#include "watch/certificate_selection.h"
#include "watch/command.h"
#include "watch/option_table.h"

namespace qixx::watch {
namespace {

bool IsQuoted(const PositionalRow& row) {
  return row.head.ends_with('"');
}

std::string_view FirstWord(std::string_view text) {
  return text.substr(0, text.find(' '));
}

std::string_view NameOf(const PositionalRow& row) {
  return FirstWord(row.head);
}

std::string OrderOfOptions() {
  std::string order = "the order is";
  for (const PositionalRow& row : kPositionalOptions) {
    if (!row.help.empty()) order.append(1, ' ').append(NameOf(row));
  }
  return order;
}

bool IsNumber(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

// --- positional form ----------------------------------------------------------------------------

void CheckValue(const Report& report, const PositionalRow& row, std::string_view value) {
  if (value.size() > kMaxOption) {
    report.Add("the value of " + Quoted(NameOf(row)) + " has more than 255 characters and is cut",
               "a shorter one is meant");
  }
  if (row.option != PositionalOption::kWait) return;
  const std::size_t bar = value.find('|');
  const bool isNumbers = IsNumber(value.substr(0, bar)) &&
                         (bar == std::string_view::npos || IsNumber(value.substr(bar + 1)));
  if (!isNumbers) {
    report.Add(report.Quoted(value) + " is no number of seconds", "\"5\" or \"5|2\" is meant");
  }
}

/// An option of the table that was not taken where it stands.
void CheckKnown(const Report& report, const PositionalRow& row, std::string_view rest) {
  const std::string option = "option '" + std::string(NameOf(row)) + "'";
  if (runtime::StartsWithNoCase(rest, row.head)) {
    report.Add(option + " is not read at this place", OrderOfOptions());
  } else if (rest.size() == NameOf(row).size()) {
    report.Add("nothing follows " + option + ", so it is taken for a command",
               "'" + std::string(NameOf(row)) + " config Watch' is meant");
  } else if (!IsQuoted(row)) {
    report.Add(option + " is not read", "one blank is meant behind it");
  } else {
    report.Add(option + " has no value in double quotes behind one blank",
               std::string(row.head).append(row.value) + "\" is meant");
  }
}

void CheckRest(const Report& report, std::string_view rest) {
  if (rest.empty()) {
    return report.Add("nothing follows the options", "'config Watch' is meant, or a command");
  }
  if (rest.starts_with(' ')) {
    return report.Add("two blanks stand in front of " +
                          report.Quoted(FirstWord(runtime::SkipBlanks(rest))) +
                          ", so no option behind them is read",
                      "one blank is meant");
  }
  if (!rest.starts_with('-')) return;
  if (SplitCommand(EventKind::kInsert, rest).kind != CommandKind::kProgram) return;
  const std::string_view word = FirstWord(rest);
  for (const PositionalRow& row : kPositionalOptions) {
    if (runtime::EqualsNoCase(word, NameOf(row))) return CheckKnown(report, row, rest);
  }
  if (runtime::EqualsNoCase(word, "-p")) {
    return report.Add("'-p' without '-c' makes no keyword form", "-p PROGRAM -c FILE is meant");
  }
  report.Add("unknown option " + report.Quoted(word),
             MeantName(report.Hides(word) ? "" : word, NamesOf(kPositionalOptions, NameOf),
                       OrderOfOptions()));
}

/// Goes along the options as the parser did, to see how the quoted ones end.
void CheckPositionalForm(const Report& report, std::string_view text, const CWatchOptions& record) {
  if (text.starts_with(' ')) {
    report.Add("a blank begins the watch command", "no blank is meant there");
  }
  std::string_view left = runtime::SkipBlanks(text);
  for (const PositionalRow& row : kPositionalOptions) {
    if (!runtime::StartsWithNoCase(left, row.head)) continue;
    left.remove_prefix(row.head.size());
    if (!IsQuoted(row)) continue;
    const std::size_t quote = left.find('"');
    if (quote == std::string_view::npos) {
      return report.Add("the value of " + Quoted(NameOf(row)) + " has no closing quote",
                        std::string(row.head).append(row.value) + "\" is meant");
    }
    CheckValue(report, row, left.substr(0, quote));
    left.remove_prefix(quote + 1);
    if (!left.empty() && left.front() != ' ') {
      report.Add("behind the value of " + Quoted(NameOf(row)) + " a character is lost",
                 "one blank is meant behind the closing quote");
    }
    left.remove_prefix(std::min<std::size_t>(left.size(), 1));
  }
  if (record.simulate.empty()) return CheckRest(report, record.rest);
  report.Add("with '-simulate' the commands run once, and nothing is watched",
             "it belongs on a command line");
}

// --- keyword form -------------------------------------------------------------------------------

void CheckKeywordForm(const Report& report, std::string_view text) {
  const std::vector<std::string_view> names = NamesOf(kKeywordOptions, &KeywordRow::name);
  bool inQuotes = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '"') inQuotes = !inQuotes;
    if (inQuotes || text[i] != '-' || (i != 0 && text[i - 1] != ' ')) continue;
    const std::string_view word = FirstWord(text.substr(i));
    if (Contains(names, word)) continue;
    report.Add("unknown option " + report.Quoted(word),
               MeantName(report.Hides(word) ? "" : word, names,
                         "a value that begins with '-' belongs in double quotes"));
  }
  if (inQuotes) report.Add("a double quote is not closed", "one more is meant");
}

// --- both ---------------------------------------------------------------------------------------

void CheckMatch(const Report& report, std::string_view match) {
  const std::size_t bar = match.rfind('|');
  const std::string_view digits = match.substr(bar + 1);
  const bool isByte = digits.size() == 2 &&
                      digits.find_first_not_of("0123456789ABCDEFabcdef") == std::string_view::npos;
  if (!ParseMatchText(match)) {
    report.Add("the match " + report.Quoted(match) + " cannot be read, so no card counts",
               "TYPE=VALUE is meant, or NAME|FF");
  } else if (bar != std::string_view::npos && !isByte) {
    report.Add(report.Quoted(digits) + " behind the last bar is no slot",
               "two hexadecimal digits are meant, FF for every slot");
  }
}

/// Behind options that were not read the lists are checked all the same.
void TakeMeantRest(CWatchOptions& record) {
  if (!record.rest.starts_with(' ') && !record.rest.starts_with('-')) return;
  const std::size_t at = runtime::FindTextNoCase(record.rest, " config");
  if (at != std::string::npos) record.rest.erase(0, at + 1);
}

}  // namespace

CWatchOptions CheckWatchCommand(const Report& report, std::string_view text) {
  CWatchOptions record;
  ParseWatchOptions(text, record);
  // Only the keyword form leaves nothing and names a program.
  if (record.rest.empty() && !record.program.empty()) {
    CheckKeywordForm(report, text);
  } else {
    CheckPositionalForm(report, text, record);
  }
  if (!record.match.empty()) CheckMatch(report, record.match);
  TakeMeantRest(record);
  return record;
}

std::string DescribeOptions(const CWatchOptions& record, const runtime::MaskedLine& line) {
  std::string text;
  const auto add = [&text](std::string_view part) { text.append(", ").append(part); };
  if (!record.match.empty())
    add("insertions only of cards that match " + Quoted(line.Part(record.match)));
  if (record.recognized) add("only cards that can be read");
  if (record.insertWait != 0) add("insertions wait " + std::to_string(record.insertWait) + " s");
  if (record.removeWait != 0) add("removals wait " + std::to_string(record.removeWait) + " s");
  if (record.sync) add("no removal before an insertion");
  return text;
}

}  // namespace qixx::watch
