#include "watch/placeholders.h"

#include "config/migration.h"
#include "config/scan.h"
#include "der/names.h"
#include "runtime/secrets.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "watch/card_text.h"
#include "watch/command_text.h"

namespace qixx::watch {
namespace {

bool HoldsMark(std::string_view text) {
  return std::ranges::any_of(kPlaceholderMarks, [text](std::string_view mark) {
    return runtime::FindTextNoCase(text, mark) != std::string_view::npos;
  });
}

std::string FillFromCard(CardReader& card, std::string_view match, std::string text,
                         std::size_t maxLength) {
  const std::optional<LogonValues> values = FindLogonCredential(card, match, kNoSlot);
  if (!values) return text;
  runtime::TraceWrite("Watch - Logon credential: '%s'", values->upn.c_str());
  runtime::TraceWrite("Watch - Logon subject:    '%s'", values->subject.c_str());
  runtime::TraceWrite("Watch - Logon number:     '%s'", values->serial.c_str());
  return ReplaceLogonPlaceholders(*values, std::move(text), maxLength);
}

/// Whether what comes next may become the first of its line that is no blank: other placeholders in
/// front may come to nothing. After many of them it may, without a further look. Follows a text
/// that grows at its end and is cut there, though not across a line end.
class LineStart {
 public:
  /// `at` is where in the text the piece begins.
  void Append(std::string_view piece, std::size_t at) {
    std::size_t line = piece.size();
    while (line > 0 && !config::IsLineBreak(piece[line - 1])) --line;
    if (line > 0) Cut(0);
    for (std::size_t i = line; i < piece.size() && !IsSettled(); ++i) {
      if (piece[i] == '%') {
        marks_.push_back(at + i);
      } else if (piece[i] != ' ' && runtime::IsAscii(piece[i]) && MayBeHere()) {
        other_ = at + i;
      }
    }
  }
  void Cut(std::size_t length) {
    while (!marks_.empty() && marks_.back() >= length) marks_.pop_back();
    if (other_ >= length) other_ = std::string::npos;
  }
  [[nodiscard]] bool MayBeHere() const {
    return other_ == std::string::npos && marks_.size() % 2 == 0;
  }

 private:
  static constexpr std::size_t kMaxMarks = 128;

  [[nodiscard]] bool IsSettled() const {
    return other_ != std::string::npos || marks_.size() >= kMaxMarks;
  }

  std::vector<std::size_t> marks_;         ///< where a '%' begins or ends a placeholder
  std::size_t other_ = std::string::npos;  ///< where the line has something else
};

/// Whether a text ends in a '/' that may be the first of its line: one more makes a comment.
bool EndsInFirstSlash(std::string_view text) {
  if (!text.ends_with('/')) return false;
  text.remove_suffix(1);
  return text.empty() || text.ends_with(' ') || config::IsLineBreak(text.back());
}

/// Whether two texts make a component ".." when nothing stands between them.
bool MakeParentFolder(std::string_view before, std::string_view behind) {
  constexpr std::string_view kEnds = "/=\" \r\n";
  std::string component(before.substr(std::min(before.find_last_of(kEnds) + 1, before.size())));
  component += behind.substr(0, behind.find_first_of(kEnds));
  return component == "..";
}

/// Replaces the occurrences in one pass over a text, whatever they are made of.
class OnePassReplacement {
 public:
  /// The name is not empty.
  OnePassReplacement(std::string_view name, std::string_view value)
      : name_(name),
        value_(value),
        isComponent_(runtime::StartsWithNoCase(name, kComponentPrefix)),
        again_(value.find(name.front()) == std::string_view::npos || value.size() < name.size()) {}

  [[nodiscard]] bool IsAt(std::string_view text, std::size_t place) const {
    return IsName(text.substr(place, name_.size()));
  }
  /// Where the name begins in the text.
  [[nodiscard]] std::size_t Find(std::string_view text, std::size_t from = 0) const {
    return isComponent_ ? runtime::FindTextNoCase(text, name_, from)
                        : runtime::FindText(text, name_, from);
  }
  /// Nothing once the result is longer than `limit` or the budget is spent.
  std::optional<std::string> Apply(std::string_view text, std::size_t limit, WalkBudget& budget) {
    bool goesOn = budget.Take(text.size());
    while (goesOn && read_ < text.size()) {
      if (read_ >= unchanged_) CopyUnchanged(text);
      if (read_ == text.size()) break;
      pending_.push_back(text[read_++]);
      while (goesOn && !pending_.empty()) {
        TakePending(text.substr(read_));
        goesOn = result_.size() <= limit && budget.Take(kStepCost);
      }
    }
    if (!goesOn || result_.size() > limit) return std::nullopt;
    return std::move(result_);
  }

 private:
  /// Goes on to the last character of the next occurrence. Only where the end of the result is a
  /// piece of the text that is as long as what an occurrence has in front of that.
  void CopyUnchanged(std::string_view text) {
    const std::size_t overlap = std::min(read_ - seam_, name_.size() - 1);
    const std::size_t found = Find(text, read_ - overlap);
    const std::size_t end =
        found == std::string_view::npos ? text.size() : found + name_.size() - 1;
    Append(text.substr(read_, end - read_));
    read_ = end;
  }
  void TakePending(std::string_view rest) {
    Append({&pending_.back(), 1});
    pending_.pop_back();
    if (!EndsInName()) return;
    result_.resize(result_.size() - name_.size());
    line_.Cut(result_.size());
    const std::string value = ValueHere(pending_.empty() ? rest : std::string_view());
    seam_ = read_;
    if (again_) {
      pending_.append(value.rbegin(), value.rend());
      unchanged_ = read_ + name_.size() - 1;
    } else {
      Append(value);
      settled_ = result_.size();
      unchanged_ = read_;
    }
  }
  /// The value as it is put in here, in front of `rest`: what stands around it makes no more of it
  /// than a text. What a removal clears comes to nothing; a component does so only where the card
  /// has it so.
  [[nodiscard]] std::string ValueHere(std::string_view rest) const {
    constexpr const char* kHarmless = "_";
    if (value_.empty() && !isComponent_) return {};
    const std::string_view next = rest.substr(0, kNeighbours);
    std::string value(value_);
    if (line_.MayBeHere()) {
      const std::string line = CleanLineStart(value.append(next));
      value = line.substr(0, value_.size());
      if (line.substr(value.size()) != next) return value + kHarmless;
    }
    if (EndsInFirstSlash(result_) && (value.empty() ? next : value).starts_with('/')) {
      return kHarmless + value.substr(value.empty() ? 0 : 1);
    }
    const bool joins = value.empty() && ((result_.ends_with('|') && next.starts_with('|')) ||
                                         MakeParentFolder(Tail(), next));
    return joins ? kHarmless : value;
  }
  /// The end of the result, without a copy.
  [[nodiscard]] std::string_view Tail() const {
    const std::string_view result(result_);
    return result.substr(result.size() - std::min(result.size(), kNeighbours));
  }
  void Append(std::string_view piece) {
    line_.Append(piece, result_.size());
    result_.append(piece);
  }
  [[nodiscard]] bool EndsInName() const {
    if (result_.size() < settled_ + name_.size()) return false;
    return IsName(std::string_view(result_).substr(result_.size() - name_.size()));
  }
  [[nodiscard]] bool IsName(std::string_view text) const {
    return isComponent_ ? runtime::EqualsNoCase(text, name_) : text == name_;
  }

  /// How much of the text around a value is looked at.
  static constexpr std::size_t kNeighbours = 64;

  std::string_view name_;
  std::string_view value_;
  bool isComponent_;  ///< of the subject; its key counts in any letter case
  /// A value that brings no beginning of the name along, or makes the text shorter, uses the
  /// occurrences up, so those that come about around it count as well.
  bool again_;
  std::string result_;
  LineStart line_;           ///< of the result
  std::string pending_;      ///< to be read in front of the rest of the text, last character first
  std::size_t settled_ = 0;  ///< what of the result no occurrence may reach back into
  std::size_t read_ = 0;     ///< so much of the text was read
  std::size_t seam_ = 0;     ///< where in the text the last change was
  std::size_t unchanged_ = 0;  ///< from here on no occurrence reaches back to that
};

}  // namespace

std::vector<SubjectPlaceholder> SubjectPlaceholders(std::string_view subject) {
  std::vector<SubjectPlaceholder> placeholders;
  while (const std::optional<der::NameComponent> component = der::NextNameComponent(subject)) {
    std::string name = std::string(kComponentPrefix) + component->key + '%';
    const bool known = std::ranges::any_of(placeholders, [&name](const SubjectPlaceholder& other) {
      return runtime::EqualsNoCase(other.name, name);
    });
    if (!known) placeholders.push_back({std::move(name), CleanCardText(component->value)});
  }
  return placeholders;
}

std::string ExpandLogonPlaceholders(CardReader& card, std::string_view match, std::string text,
                                    std::size_t maxLength) {
  if (text.find('%') == std::string_view::npos) return text;
  if (HoldsMark(text)) text = FillFromCard(card, match, std::move(text), maxLength);
  runtime::TraceWrite("Watch - Expanded: '%s'", runtime::MaskedText(text).Text());
  return text;
}

std::string ReplaceLogonPlaceholders(const LogonValues& values, std::string text,
                                     std::size_t maxLength) {
  CommandText command(std::move(text), maxLength);
  for (const NamedPlaceholder& placeholder : kNamedPlaceholders) {
    command.Fill(placeholder.name, placeholder.valueOf(values));
  }
  for (const SubjectPlaceholder& component : SubjectPlaceholders(values.subject)) {
    command.Fill(component.name, component.value);
  }
  return command.Text();
}

bool ReplaceAll(std::string& text, std::string_view name, std::string_view value,
                std::size_t maxLength, WalkBudget& budget) {
  OnePassReplacement replacement(name, value);
  std::size_t first = text.find(name.front());
  for (; first != std::string::npos && !replacement.IsAt(text, first);
       first = text.find(name.front(), first + 1)) {
    if (!budget.Take(kStepCost)) return false;
  }
  if (first == std::string::npos) return text.size() <= maxLength;
  std::optional<std::string> after = replacement.Apply(text, maxLength, budget);
  if (!after) return false;
  if (!value.empty() && config::LooksOld(*after) && !config::LooksOld(text)) return false;
  text = std::move(*after);
  return true;
}

}  // namespace qixx::watch
