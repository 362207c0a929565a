#include "config/conditions.h"

#include <cstddef>

#include "runtime/text.h"

namespace qixx::config {
namespace {

constexpr std::size_t kNone = std::string_view::npos;
constexpr std::string_view kAlternativeSeparator = "||";

/// Takes the part in front of the next separator off.
std::optional<std::string_view> TakePart(Rest& rest, std::string_view separator) {
  if (!rest) return std::nullopt;
  const std::size_t end = rest->find(separator);
  const std::string_view part = rest->substr(0, end);
  rest = end == kNone ? Rest() : rest->substr(end + separator.size());
  return part;
}

bool IsCallingApplication(std::string_view names, std::string_view application) {
  const std::string_view file = application.substr(application.rfind('/') + 1);
  for (Rest rest = names; const auto name = TakePart(rest, ";");) {
    const bool isPath = name->find('/') != kNone;
    if (!name->empty() && runtime::EqualsNoCase(*name, isPath ? application : file)) return true;
  }
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

std::optional<Alternative> TakeAlternative(Rest& rest) {
  const std::optional<std::string_view> part = TakePart(rest, kAlternativeSeparator);
  if (!part) return std::nullopt;
  const std::size_t bar = part->rfind('|');
  if (bar == kNone) return Alternative{*part, std::nullopt};
  return Alternative{part->substr(0, bar), part->substr(bar + 1)};
}

std::optional<std::string_view> TakeTerm(Rest& rest) {
  return TakePart(rest, ",");
}

bool IsConditional(std::string_view value) {
  return value.find(kAlternativeSeparator) != kNone;
}

bool ConditionHolds(std::string_view condition, const ConditionContext& context) {
  for (Rest rest = condition; const auto term = TakeTerm(rest);) {
    if (!TermHolds(*term, context)) return false;
  }
  return true;
}

std::string_view ResolveConditional(std::string_view value, const ConditionContext& context) {
  if (!IsConditional(value)) return value;
  for (Rest rest = value; const auto alternative = TakeAlternative(rest);) {
    if (!alternative->condition || ConditionHolds(*alternative->condition, context)) {
      return alternative->value;
    }
  }
  return value;
}

}  // namespace qixx::config
