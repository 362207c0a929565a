// Values that depend on who reads them.
//
// A conditional value lists alternatives, each a value with a condition; the first whose condition
// holds counts, and a plain last one is the default:
//
//   Color=blue|viewer;editor||green|{Office},*||grey
//
// A condition is a list of terms, separated by commas, that must all hold: "" and "*" always do,
// "{name}" asks for a named condition, what begins with a digit or "mode:" is reserved and never
// holds, and anything else is a list of application names, separated by semicolons. A name with a
// '/' is compared with the whole path of the calling application. Blanks are not trimmed; letter
// case is ignored except in braces.
#pragma once

#include <functional>
#include <optional>
#include <string_view>

namespace qixx::config {

/// What conditions are judged by.
struct ConditionContext {
  std::string_view application;  ///< path of the calling application, empty when unknown
  /// Asked with the whole term, braces included.
  std::function<bool(std::string_view name)> isNamedConditionActive;
};

/// What is left of a list; nothing behind its last part, which may be empty.
using Rest = std::optional<std::string_view>;

struct Alternative {
  std::string_view value;
  /// Nothing for a plain one, which is always taken.
  std::optional<std::string_view> condition;
};
/// Takes the first alternative off a value.
[[nodiscard]] std::optional<Alternative> TakeAlternative(Rest& rest);
/// Takes the first term off a condition.
[[nodiscard]] std::optional<std::string_view> TakeTerm(Rest& rest);

/// Only a value with a "||" in it is a conditional one.
[[nodiscard]] bool IsConditional(std::string_view value);
[[nodiscard]] bool ConditionHolds(std::string_view condition, const ConditionContext& context);

/// The chosen alternative, a view into `value`. A value that is not conditional, or of which no
/// alternative holds, is returned as it is.
[[nodiscard]] std::string_view ResolveConditional(std::string_view value,
                                                  const ConditionContext& context);

}  // namespace qixx::config
