// The text in which the suite keeps names and values in a data object of a token.
//
// A zero byte, then name and value by turns, each padded with blanks and ended by a zero byte. What
// is parsed comes from a card: any bytes are allowed, and a text without terminator runs to the
// end. All operations may be called from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qixx::pkcs11 {

struct TokenVariable {
  std::string name;
  std::string value;

  bool operator==(const TokenVariable&) const = default;
};

/// The variables in their order, without their padding. None for a text that is no such store or
/// shorter than three bytes; an empty name, or less than four bytes left, ends the list.
[[nodiscard]] std::vector<TokenVariable> ParseTokenVariables(std::span<const std::uint8_t> stored);

/// The stored text. Each name and value gets one blank of padding: a pair without any may be too
/// short to be read again.
[[nodiscard]] std::vector<std::uint8_t> BuildTokenVariables(
    std::span<const TokenVariable> variables);

/// Whether a name or value comes back from the store as it is: no zero byte, no blank at its end.
[[nodiscard]] bool IsStorable(std::string_view text);

/// The value of the first variable of this name (letter case counts), a view into `stored`.
[[nodiscard]] std::optional<std::string_view> FindTokenVariable(
    std::span<const std::uint8_t> stored, std::string_view name);

}  // namespace qixx::pkcs11
