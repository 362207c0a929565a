// What a check of the configuration finds, and how it is said.
#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "runtime/secrets.h"

namespace qixx::watch {

/// Where a text stands. A value of the environment stands in no line of a file.
struct Place {
  std::string file;
  std::size_t line = 1;
};

/// The mistakes of one check, in the order of their places.
class Mistakes {
 public:
  /// More than these are only counted.
  static constexpr std::size_t kMaxTold = 1000;

  /// `meant` says what to do instead; it may be empty.
  void Add(const Place& place, std::string_view wrong, std::string_view meant = {});
  /// All of another check.
  void Add(const Mistakes& others);
  [[nodiscard]] std::size_t Count() const { return count_; }
  /// One line for each: "FILE:LINE: what is wrong; what was meant". Each is said once.
  [[nodiscard]] std::string Text() const;

 private:
  struct Mistake {
    std::size_t file;  ///< index of its name
    std::size_t line;
    std::string text;
  };

  std::vector<std::string> files_;
  std::vector<Mistake> told_;
  std::size_t count_ = 0;
};

/// A text for one line of a terminal: masked secrets, nothing that is not printable, not too long.
[[nodiscard]] std::string Shown(std::string_view text);
/// The same between single quotes.
[[nodiscard]] std::string Quoted(std::string_view text);

/// Takes the mistakes of one place, and shows parts of the line that stands there.
class Report {
 public:
  Report(Place place, Mistakes& mistakes, std::string_view line = {})
      : place_(std::move(place)), mistakes_(mistakes), line_(line) {}
  void Add(std::string_view wrong, std::string_view meant) const {
    mistakes_.Add(place_, wrong, meant);
  }

  /// As watch::Shown and watch::Quoted.
  [[nodiscard]] std::string Shown(std::string_view part) const {
    return watch::Shown(line_.Part(part));
  }
  [[nodiscard]] std::string Quoted(std::string_view part) const { return "'" + Shown(part) + "'"; }
  /// Whether the part is, or belongs to, a secret, so that nothing may be said of what was meant.
  [[nodiscard]] bool Hides(std::string_view part) const { return line_.Hides(part); }

 private:
  const Place place_;
  Mistakes& mistakes_;
  const runtime::MaskedLine line_;
};

/// The names of a table's rows.
[[nodiscard]] std::vector<std::string_view> NamesOf(const auto& rows, const auto& name) {
  std::vector<std::string_view> names;
  std::ranges::transform(rows, std::back_inserter(names), name);
  return names;
}
/// Whether the name is one of them. Letter case is ignored here and below.
[[nodiscard]] bool Contains(std::span<const std::string_view> names, std::string_view name);
/// The candidate that `name` was probably meant to be; empty when none is near enough.
[[nodiscard]] std::string_view NearestName(std::string_view name,
                                           std::span<const std::string_view> candidates);
/// "'candidate' is meant", or `otherwise` when there is none near.
[[nodiscard]] std::string MeantName(std::string_view name,
                                    std::span<const std::string_view> candidates,
                                    std::string_view otherwise);

}  // namespace qixx::watch
