// What a check of the configuration finds, and how it is said.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

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

/// The candidate that `name` was probably meant to be, letter case ignored; empty when none is near
/// enough.
[[nodiscard]] std::string_view NearestName(std::string_view name,
                                           std::span<const std::string_view> candidates);
/// "'candidate' is meant", or `otherwise` when there is none near.
[[nodiscard]] std::string MeantName(std::string_view name,
                                    std::span<const std::string_view> candidates,
                                    std::string_view otherwise);

}  // namespace qixx::watch
