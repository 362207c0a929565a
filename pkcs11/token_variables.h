// The data object in which the suite keeps names and values on a token: its attributes, and the
// text that is its value.
//
// The text is a zero byte, then name and value by turns, each padded with blanks and ended by a
// zero byte. What is parsed comes from a card: any bytes are allowed, and a text without terminator
// runs to the end. All operations may be called from any thread.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "pkcs11/cryptoki.h"

namespace qixx::pkcs11 {

struct TokenVariable {
  std::string_view name;
  std::string_view value;

  bool operator==(const TokenVariable&) const = default;
};

/// The variables in their order, without their padding, as views into `stored`. None for a text
/// that is no such store or shorter than three bytes; an empty name, or less than four bytes left,
/// ends the list.
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

/// A longer value of the object is not read, whatever a library says.
inline constexpr CK_ULONG kMaxStoredBytes = 1 << 20;

/// The attributes of the object for public or for private variables. They point into this.
class VariableTemplate {
 public:
  explicit VariableTemplate(bool isPrivate);
  VariableTemplate(const VariableTemplate&) = delete;
  VariableTemplate& operator=(const VariableTemplate&) = delete;

  /// Five attributes: class, token, privacy, the suite's name as application, an empty label.
  [[nodiscard]] std::span<CK_ATTRIBUTE> ToFind() { return std::span(attributes_).first(5); }
  /// The same with a value, which is only read and must stay for as long as the attributes are
  /// used.
  [[nodiscard]] std::span<CK_ATTRIBUTE> ToCreate(std::span<const CK_BYTE> value);

 private:
  CK_OBJECT_CLASS class_ = CKO_DATA;
  CK_BBOOL onToken_ = CK_TRUE;
  CK_BBOOL isPrivate_;
  std::string application_;
  std::array<CK_ATTRIBUTE, 6> attributes_;
};

}  // namespace qixx::pkcs11
