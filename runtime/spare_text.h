// Spare: asked of this layer by the suite's design, built, called by nothing in this
// program.
//
// Further operations on texts, under the rules of runtime/text.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace qixx::runtime {

/// Position of the first `c`, npos when there is none. A zero byte that is searched for stands at
/// the end of the text at the latest.
[[nodiscard]] std::size_t FindChar(std::string_view text, char c);

/// A copy of a text of somebody else's; nothing for null.
[[nodiscard]] std::optional<std::string> Duplicate(const char* text);

/// Standard base64 (RFC 4648) with padding, without line ends.
[[nodiscard]] std::string Base64Encode(std::span<const std::uint8_t> data);
/// Base64 with an LF after every 64 characters and one at the end, also behind no data.
[[nodiscard]] std::string Base64EncodeLines(std::span<const std::uint8_t> data);

}  // namespace qixx::runtime
