#include "watch/check_options.h"

#include <algorithm>
#include <cctype>
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

std::string_view NameOf(const PositionalRow& row) {
  return row.head.substr(0, row.head.find(' '));
}

std::string OrderOfOptions() {
  std::string order = "the order is";
  for (const PositionalRow& row : kPositionalOptions) {
    if (!row.help.empty()) order.append(1, ' ').append(NameOf(row));
  }
  return order;
}

std::string_view FirstWord(std::string_view text) {
  return text.substr(0, text.find(' '));
}

bool IsNumber(std::string_view text) {
  return !text.empty() &&
         std::ranges::all_of(text, [](unsigned char c) { return std::isdigit(c) != 0; });
}

class WatchCommandCheck {
 public:
  WatchCommandCheck(const Place& place, std::string_view text, Mistakes& mistakes)
      : place_(place), text_(text), mistakes_(mistakes) {}

  CWatchOptions Check() {
    CWatchOptions record;
    ParseWatchOptions(text_, record);
    // Only the keyword form leaves nothing and names a program.
    if (record.rest.empty() && !record.program.empty()) {
      CheckKeywordForm();
    } else {
      CheckPositionalForm(record);
    }
    CheckMatch(record.match);
    TakeMeantRest(record);
    return record;
  }

 private:
  void Add(std::string_view wrong, std::string_view meant) { mistakes_.Add(place_, wrong, meant); }

  // --- positional form --------------------------------------------------------------------------

  /// Goes along the options as the parser did, to see how the quoted ones end.
  void CheckPositionalForm(const CWatchOptions& record) {
    if (text_.starts_with(' ')) Add("a blank begins the watch command", "no blank is meant there");
    std::string_view left = runtime::SkipBlanks(text_);
    for (const PositionalRow& row : kPositionalOptions) {
      if (!runtime::StartsWithNoCase(left, row.head)) continue;
      left.remove_prefix(row.head.size());
      if (!IsQuoted(row)) continue;
      const std::size_t quote = left.find('"');
      if (quote == std::string_view::npos) {
        return Add("the value of " + Quoted(NameOf(row)) + " has no closing quote",
                   std::string(row.head) + std::string(row.value) + "\" is meant");
      }
      CheckValue(row, left.substr(0, quote));
      left.remove_prefix(quote + 1);
      if (!left.empty() && left.front() != ' ') {
        Add("behind the value of " + Quoted(NameOf(row)) + " a character is lost",
            "one blank is meant behind the closing quote");
      }
      left.remove_prefix(std::min<std::size_t>(left.size(), 1));
    }
    if (!record.simulate.empty()) {
      return Add("with '-simulate' the commands run once, and nothing is watched",
                 "it belongs on a command line");
    }
    CheckRest(record.rest);
  }
  void CheckValue(const PositionalRow& row, std::string_view value) {
    if (value.size() > kMaxOption) {
      Add("the value of " + Quoted(NameOf(row)) + " has more than 255 characters and is cut",
          "a shorter one is meant");
    }
    if (row.option != PositionalOption::kWait) return;
    const std::size_t bar = value.find('|');
    const bool isNumbers = IsNumber(value.substr(0, bar)) &&
                           (bar == std::string_view::npos || IsNumber(value.substr(bar + 1)));
    if (!isNumbers) {
      Add(Quoted(value) + " is no number of seconds", "\"5\" or \"5|2\" is meant");
    }
  }

  void CheckRest(std::string_view rest) {
    if (rest.empty()) {
      return Add("nothing follows the options", "'config Watch' is meant, or a command");
    }
    if (rest.starts_with(' ')) {
      return Add("two blanks stand in front of " + Quoted(FirstWord(runtime::SkipBlanks(rest))) +
                     ", so no option behind them is read",
                 "one blank is meant");
    }
    if (!rest.starts_with('-')) return;
    const CommandKind kind = SplitCommand(EventKind::kInsert, rest).kind;
    if (kind != CommandKind::kProgram) return;
    const std::string_view word = FirstWord(rest);
    std::vector<std::string_view> names;
    for (const PositionalRow& row : kPositionalOptions) {
      names.push_back(NameOf(row));
      if (runtime::EqualsNoCase(word, NameOf(row))) return CheckKnown(row, rest);
    }
    if (runtime::EqualsNoCase(word, "-p")) {
      return Add("'-p' without '-c' makes no keyword form", "-p PROGRAM -c FILE is meant");
    }
    Add("unknown option " + Quoted(word), MeantName(word, names, OrderOfOptions()));
  }
  void CheckKnown(const PositionalRow& row, std::string_view rest) {
    const std::string name(NameOf(row));
    if (runtime::StartsWithNoCase(rest, row.head)) {
      return Add("option '" + name + "' is not read at this place", OrderOfOptions());
    }
    if (rest.size() == name.size()) {
      return Add("nothing follows option '" + name + "', so it is taken for a command",
                 "'" + name + " config Watch' is meant");
    }
    if (!IsQuoted(row))
      return Add("option '" + name + "' is not read", "one blank is meant behind it");
    Add("option '" + name + "' has no value in double quotes behind one blank",
        std::string(row.head) + std::string(row.value) + "\" is meant");
  }

  /// Behind options that were not read the lists are checked all the same.
  static void TakeMeantRest(CWatchOptions& record) {
    if (!record.rest.starts_with(' ') && !record.rest.starts_with('-')) return;
    const std::size_t at = runtime::FindTextNoCase(record.rest, " config");
    if (at != std::string::npos) record.rest.erase(0, at + 1);
  }

  // --- keyword form -----------------------------------------------------------------------------

  void CheckKeywordForm() {
    std::vector<std::string_view> names;
    names.reserve(kKeywordOptions.size());
    for (const KeywordRow& row : kKeywordOptions) names.push_back(row.name);
    bool inQuotes = false;
    std::string_view left = text_;
    for (bool isStart = true; !left.empty(); left.remove_prefix(1)) {
      const char c = left.front();
      if (c == '"') inQuotes = !inQuotes;
      if (isStart && c == '-' && !inQuotes) {
        const std::string_view word = FirstWord(left);
        if (std::ranges::none_of(names, [word](std::string_view name) {
              return runtime::EqualsNoCase(name, word);
            })) {
          Add("unknown option " + Quoted(word),
              MeantName(word, names, "a value that begins with '-' belongs in double quotes"));
        }
      }
      isStart = c == ' ';
    }
    if (inQuotes) Add("a double quote is not closed", "one more is meant");
  }

  // --- values -----------------------------------------------------------------------------------

  void CheckMatch(std::string_view match) {
    if (match.empty()) return;
    const std::size_t bar = match.rfind('|');
    const bool hasValue = bar != std::string_view::npos;
    const std::string_view digits = hasValue ? match.substr(bar + 1) : std::string_view();
    const bool isHex = digits.size() == 2 && std::ranges::all_of(digits, [](unsigned char c) {
                         return std::isxdigit(c) != 0;
                       });
    if (!ParseMatchText(match)) {
      Add("the match " + Quoted(match) + " cannot be read, so no card counts",
          "TYPE=VALUE is meant, or NAME|FF");
    } else if (hasValue && !isHex) {
      Add(Quoted(digits) + " behind the last bar is no slot",
          "two hexadecimal digits are meant, FF for every slot");
    }
  }

  const Place& place_;
  std::string_view text_;
  Mistakes& mistakes_;
};

}  // namespace

CWatchOptions CheckWatchCommand(const Place& place, std::string_view text, Mistakes& mistakes) {
  return WatchCommandCheck(place, text, mistakes).Check();
}

std::string DescribeOptions(const CWatchOptions& record) {
  std::string text;
  const auto add = [&text](std::string_view part) { text.append(", ").append(part); };
  if (!record.match.empty()) add("insertions only of cards that match " + Quoted(record.match));
  if (record.recognized) add("only cards that can be read");
  if (record.insertWait != 0) add("insertions wait " + std::to_string(record.insertWait) + " s");
  if (record.removeWait != 0) add("removals wait " + std::to_string(record.removeWait) + " s");
  if (record.sync) add("no removal before an insertion");
  return text;
}

}  // namespace qixx::watch
