// Byte-string primitives and codecs.
//
// Everything here works on bytes and folds ASCII letters only; no locale is consulted, since text
// is UTF-8 throughout. Limits and lengths never count a terminator. All operations may be called
// from any thread; only std::bad_alloc is thrown.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qixx::runtime {

/// Longest name, path and configured value.
inline constexpr std::size_t kMaxText = 255;
/// Longest command line.
inline constexpr std::size_t kMaxLine = 1023;

// --- foreign buffers --------------------------------------------------------------------------

/// The text up to its first zero byte, or all of it when there is none.
[[nodiscard]] constexpr std::string_view UpToZero(std::string_view text) {
  return text.substr(0, text.find('\0'));
}

/// The text in a fixed buffer of somebody else's record.
[[nodiscard]] constexpr std::string_view TextOf(std::span<const char> buffer) {
  return UpToZero({buffer.data(), buffer.size()});
}

/// The same memory seen as text, or as bytes.
[[nodiscard]] inline std::string_view AsText(std::span<const std::uint8_t> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}
[[nodiscard]] inline std::span<const std::uint8_t> AsBytes(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

/// Null-safe view of what a foreign call returned: a null pointer is the empty text.
[[nodiscard]] inline std::string_view ViewOf(const char* text) {
  return text == nullptr ? std::string_view{} : std::string_view{text};
}

// --- comparison and search --------------------------------------------------------------------

[[nodiscard]] constexpr bool IsAscii(char c) {
  return static_cast<unsigned char>(c) < 0x80;
}
/// 'A' to 'Z' get 32 added; no other byte changes.
[[nodiscard]] constexpr char FoldCase(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

/// Compares at most `limit` bytes of each text. The result is the difference of the first unequal
/// folded (unsigned) bytes, else 0 for equal lengths, 1 when `a` is the longer and -1 when `b` is.
[[nodiscard]] int CompareNoCase(std::string_view a, std::string_view b,
                                std::size_t limit = std::string_view::npos);

[[nodiscard]] inline bool EqualsNoCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  // Names that stand together are often alike up to their ends.
  if (!a.empty() && FoldCase(a.back()) != FoldCase(b.back())) return false;
  return std::ranges::equal(a, b, {}, FoldCase, FoldCase);
}
/// A text shorter than `head` never matches.
[[nodiscard]] bool StartsWithNoCase(std::string_view text, std::string_view head);

/// Position of the first `pattern` that begins at `from` or behind it, npos when there is none. An
/// empty pattern is found at `from`.
[[nodiscard]] std::size_t FindText(std::string_view text, std::string_view pattern,
                                   std::size_t from = 0);
/// The same in any letter case.
[[nodiscard]] std::size_t FindTextNoCase(std::string_view text, std::string_view pattern,
                                         std::size_t from = 0);

// --- pieces -----------------------------------------------------------------------------------

/// Only ' ' is a blank here; tabs and line ends are ordinary characters.
[[nodiscard]] std::string_view SkipBlanks(std::string_view text);
[[nodiscard]] std::string_view DropTrailingBlanks(std::string_view text);

/// Field `index` (from 0) of a text split at `separator`; nothing when there are fewer fields. A
/// text without separator has one field, also when it is empty.
[[nodiscard]] std::optional<std::string_view> GetField(std::string_view text, std::size_t index,
                                                       char separator);

/// Decimal number: leading blanks skipped, then digits up to the first other character. No digit
/// gives 0 (so does a sign); a number too large saturates.
[[nodiscard]] std::uint64_t ParseDecimal(std::string_view text);
/// spare: as ParseDecimal with an optional leading '-'; saturates at both ends.
[[nodiscard]] std::int64_t ParseSigned(std::string_view text);
/// As ParseDecimal, or hexadecimal after a leading "0x" in either case; saturates.
[[nodiscard]] std::uint64_t ParseNumber(std::string_view text);

// --- replacement ------------------------------------------------------------------------------

/// spare: replaces every occurrence of `from`, searching on behind each replacement, so a `to` that
/// holds `from` is not replaced again. Stops before a result longer than `maxLength`. Nothing
/// happens for an empty `from` or when both are equal.
void ReplaceAll(std::string& text, std::string_view from, std::string_view to,
                std::size_t maxLength);
/// spare: the same in any letter case of `from`. Returns whether anything was replaced.
bool ReplaceAllNoCase(std::string& text, std::string_view from, std::string_view to,
                      std::size_t maxLength);

// --- codecs -----------------------------------------------------------------------------------

/// Of base64 (RFC 4648).
inline constexpr std::string_view kBase64Alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

/// Upper-case hexadecimal, two characters a byte.
[[nodiscard]] std::string HexEncode(std::span<const std::uint8_t> data);
/// Drops a leading "0x" (from three characters on) and everything that is no hexadecimal digit,
/// then reads pairs; a last odd digit is ignored.
[[nodiscard]] std::vector<std::uint8_t> HexDecode(std::string_view text);

/// A text that begins with '-' has its first line skipped and ends at the next '-'. Characters
/// outside the alphabet are dropped; a zero byte or '=' ends the text. Two characters left over
/// give one byte, three give two, one gives none.
[[nodiscard]] std::vector<std::uint8_t> Base64Decode(std::string_view text);

// --- conversions ------------------------------------------------------------------------------

/// Appends a character as UTF-8. What is no character (a surrogate, beyond U+10FFFF) becomes
/// U+FFFD.
void AppendUtf8(std::string& text, char32_t character);

/// Takes the first character off a UTF-8 text that is not empty. Where none begins, one byte is
/// taken and the result is nothing: behind a cut, in an overlong form, for a surrogate.
[[nodiscard]] std::optional<char32_t> TakeUtf8(std::string_view& text);

/// UTF-16 to UTF-8. Surrogate pairs are joined, a lone surrogate becomes U+FFFD, a last odd byte is
/// dropped. Zero characters are kept as zero bytes.
[[nodiscard]] std::string Utf16ToUtf8(std::span<const std::uint8_t> bytes,
                                      std::endian order = std::endian::little);

}  // namespace qixx::runtime
