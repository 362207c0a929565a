#include "watch/placeholders.h"

#include <algorithm>

#include "der/names.h"
#include "runtime/secrets.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "watch/card_text.h"

namespace qixx::watch {
namespace {

bool HoldsPlaceholder(std::string_view text) {
  return std::ranges::any_of(kPlaceholderHeads, [text](std::string_view head) {
    return runtime::FindTextNoCase(text, head) != std::string_view::npos;
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

/// Whether what follows on a line may become the first of it that is no blank: other placeholders
/// may come to nothing. After many of them it may, without a further look.
bool MayStartLine(std::string_view line) {
  constexpr int kMaxLooks = 64;
  for (int look = 0; look < kMaxLooks; ++look) {
    line = runtime::SkipBlanks(line);
    if (line.empty()) return true;
    const std::size_t end = line.front() == '%' ? line.find('%', 1) : std::string_view::npos;
    if (end == std::string_view::npos) return false;
    line.remove_prefix(end + 1);
  }
  return true;
}

enum class LetterCase { kCounts, kIgnored };

/// Replaces the occurrences in one pass over a text, whatever they are made of.
class OnePassReplacement {
 public:
  /// The name is not empty.
  OnePassReplacement(std::string_view name, std::string_view value, LetterCase letterCase)
      : name_(name),
        value_(value),
        lineStart_(CleanLineStart(value)),
        letterCase_(letterCase),
        again_(value.find(name.front()) == std::string_view::npos || value.size() < name.size()) {}

  /// Gives up once the result is longer than `limit`.
  std::string Apply(std::string_view text, std::size_t limit) {
    for (std::size_t next = 0; next < text.size() && result_.size() <= limit; ++next) {
      pending_.push_back(text[next]);
      while (!pending_.empty()) TakePending();
    }
    return std::move(result_);
  }

 private:
  void TakePending() {
    result_.push_back(pending_.back());
    pending_.pop_back();
    if (result_.back() == '\n' || result_.back() == '\r') line_ = result_.size();
    if (!EndsInName()) return;
    result_.resize(result_.size() - name_.size());
    const std::string_view value = NextValue();
    if (again_) {
      pending_.append(value.rbegin(), value.rend());
    } else {
      result_.append(value);
      settled_ = result_.size();
    }
  }
  [[nodiscard]] std::string_view NextValue() const {
    if (lineStart_ == value_) return value_;
    const std::string_view line = std::string_view(result_).substr(std::min(line_, result_.size()));
    return MayStartLine(line) ? std::string_view(lineStart_) : value_;
  }
  [[nodiscard]] bool EndsInName() const {
    if (result_.size() < settled_ + name_.size()) return false;
    const std::string_view tail = std::string_view(result_).substr(result_.size() - name_.size());
    return letterCase_ == LetterCase::kIgnored ? runtime::EqualsNoCase(tail, name_) : tail == name_;
  }

  std::string_view name_;
  std::string_view value_;
  std::string lineStart_;  ///< the value for the start of a line
  LetterCase letterCase_;
  /// A value that brings no beginning of the name along, or makes the text shorter, uses the
  /// occurrences up, so those that come about around it count as well.
  bool again_;
  std::string result_;
  std::size_t line_ = 0;     ///< where the last line of the result begins
  std::string pending_;      ///< to be read in front of the rest of the text, last character first
  std::size_t settled_ = 0;  ///< what no occurrence may reach back into
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
  if (runtime::FindChar(text, '%') == std::string_view::npos) return text;
  if (HoldsPlaceholder(text)) text = FillFromCard(card, match, std::move(text), maxLength);
  runtime::TraceWrite("Watch - Expanded: '%s'", runtime::MaskedText(text).Text());
  return text;
}

std::string ReplaceLogonPlaceholders(const LogonValues& values, std::string text,
                                     std::size_t maxLength) {
  const auto replace = [&text, maxLength](std::string_view name, std::string_view value) {
    runtime::ReplaceAllNoCase(text, name, value, maxLength);
  };
  const LogonName name = SplitPrincipalName(values.upn);
  replace(kUpnPlaceholder, values.upn);
  replace(kUserNamePlaceholder, name.user);
  replace(kDomainPlaceholder, name.domain);
  replace(kSubjectPlaceholder, values.subject);
  replace(kSerialPlaceholder, values.serial);
  for (const SubjectPlaceholder& component : SubjectPlaceholders(values.subject)) {
    replace(component.name, component.value);
  }
  return text;
}

void ReplaceAll(std::string& text, std::string_view name, std::string_view value) {
  if (name.empty()) return;
  text = OnePassReplacement(name, value, LetterCase::kCounts).Apply(text, std::string::npos);
}

std::optional<std::string> ReplacePlaceholder(std::string_view text, std::string_view name,
                                              std::string_view value, std::size_t maxLength) {
  const bool isComponent = runtime::StartsWithNoCase(name, kComponentPrefix);
  OnePassReplacement replacement(name, value,
                                 isComponent ? LetterCase::kIgnored : LetterCase::kCounts);
  std::string after = replacement.Apply(text, maxLength);
  if (after.size() > maxLength) return std::nullopt;
  return after;
}

}  // namespace qixx::watch
