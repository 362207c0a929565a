#include "watch/check_placeholders.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <optional>

#include "runtime/text.h"
#include "watch/placeholders.h"

namespace qixx::watch {
namespace {

constexpr auto kNames = [] {
  std::array<std::string_view, kNamedPlaceholders.size()> names;
  std::ranges::transform(kNamedPlaceholders, names.begin(), &NamedPlaceholder::name);
  return names;
}();

struct Placeholder {
  std::string_view text;  ///< with both '%'
  bool isKnown = false;
};

bool IsPlaceholderName(std::string_view name) {
  return name.size() >= 3 && std::ranges::all_of(name, [](unsigned char c) {
           return std::isalnum(c) != 0 || c == '.' || c == '-';
         });
}

/// The next "%name%" at or behind `at`, which moves to its end; names shorter than those that are
/// known are somebody else's.
std::optional<Placeholder> NextPlaceholder(std::string_view text, std::size_t& at) {
  for (at = text.find('%', at); at != std::string_view::npos; at = text.find('%', at + 1)) {
    const std::size_t end = text.find('%', at + 1);
    if (end == std::string_view::npos) return std::nullopt;
    const std::string_view whole = text.substr(at, end + 1 - at);
    const bool isComponent = runtime::StartsWithNoCase(whole, kComponentPrefix);
    if (!isComponent && !IsPlaceholderName(whole.substr(1, whole.size() - 2))) continue;
    at = end + 1;
    const bool isKnown =
        isComponent || std::ranges::any_of(kNames, [whole](std::string_view known) {
          return runtime::EqualsNoCase(known, whole);
        });
    return Placeholder{whole, isKnown};
  }
  return std::nullopt;
}

}  // namespace

bool HoldsPlaceholder(std::string_view text) {
  std::size_t at = 0;
  while (const std::optional<Placeholder> found = NextPlaceholder(text, at)) {
    if (found->isKnown) return true;
  }
  return false;
}

void CheckPlaceholders(const Place& place, bool isFilled, std::string_view text,
                       Mistakes& mistakes) {
  std::size_t at = 0;
  while (const std::optional<Placeholder> found = NextPlaceholder(text, at)) {
    if (!found->isKnown) {
      const std::string_view nearest = NearestName(found->text, kNames);
      if (nearest.empty()) continue;
      mistakes.Add(place, "there is no placeholder " + Quoted(found->text),
                   Quoted(nearest) + " is meant");
    } else if (!isFilled) {
      mistakes.Add(place, "placeholder " + Quoted(found->text) + " is not filled here",
                   "only the numbered commands of an insertion get values");
    }
  }
  const std::size_t open = runtime::FindTextNoCase(text, kComponentPrefix);
  if (open != std::string_view::npos && text.find('%', open + 1) == std::string_view::npos) {
    mistakes.Add(place, "placeholder " + Quoted(text.substr(open)) + " has no end",
                 "'%OID.cn%' is meant");
  }
}

}  // namespace qixx::watch
