#include "config/conditions.h"

#include <cstddef>

#include "runtime/text.h"

namespace qixx::config {
namespace {

constexpr std::size_t kNone = std::string_view::npos;
constexpr std::string_view kAlternativeSeparator = "||";

/// Takes the part in front of the next separator off `rest`. With the last part `rest` gets no
/// data.
std::string_view TakePart(std::string_view& rest, std::string_view separator) {
  const std::size_t end = rest.find(separator);
  const std::string_view part = rest.substr(0, end);
  rest = end == kNone ? std::string_view{} : rest.substr(end + separator.size());
  return part;
}

bool IsCallingApplication(std::string_view names, std::string_view application) {
  const std::string_view file = application.substr(application.rfind('/') + 1);
  do {
    const std::string_view name = TakePart(names, ";");
    const bool isPath = name.find('/') != kNone;
    if (!name.empty() && runtime::EqualsNoCase(name, isPath ? application : file)) return true;
  } while (names.data() != nullptr);
  return false;
}

bool TermHolds(std::string_view term, const ConditionContext& context) {
  if (term.empty() || term == "*") return true;
  // Numbers and modes are reserved and hold nowhere.
  if (term.front() >= '0' && term.front() <= '9') return false;
  if (runtime::StartsWithNoCase(term, "mode:")) return false;
  if (term.front() == '{') return context.isNamedConditionActive(term);
  return IsCallingApplication(term, context.application);
}

}  // namespace

Alternative TakeAlternative(std::string_view& rest) {
  const std::string_view alternative = TakePart(rest, kAlternativeSeparator);
  const std::size_t bar = alternative.rfind('|');
  if (bar == kNone) return {alternative, std::nullopt};
  return {alternative.substr(0, bar), alternative.substr(bar + 1)};
}

std::string_view TakeTerm(std::string_view& condition) {
  return TakePart(condition, ",");
}

bool IsConditional(std::string_view value) {
  return value.find(kAlternativeSeparator) != kNone;
}

bool ConditionHolds(std::string_view condition, const ConditionContext& context) {
  do {
    if (!TermHolds(TakeTerm(condition), context)) return false;
  } while (condition.data() != nullptr);
  return true;
}

std::string_view ResolveConditional(std::string_view value, const ConditionContext& context) {
  if (!IsConditional(value)) return value;
  std::string_view rest = value;
  do {
    const Alternative alternative = TakeAlternative(rest);
    if (!alternative.condition || ConditionHolds(*alternative.condition, context)) {
      return alternative.value;
    }
  } while (rest.data() != nullptr);
  return value;
}

}  // namespace qixx::config
