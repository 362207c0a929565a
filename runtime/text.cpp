#include "runtime/text.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>

namespace qixx::runtime {
namespace {

constexpr std::string_view kHexDigits = "0123456789ABCDEF";

std::uint8_t FoldedByte(char c) {
  return static_cast<std::uint8_t>(FoldCase(c));
}

/// What each byte stands for among the digits, as they are or folded; -1 when it is none. A table,
/// because the digits of a codec's input are as good as random and a branch on each would be
/// guessed wrong every other time.
using DigitValues = std::array<std::int8_t, 256>;
constexpr DigitValues ValuesOf(std::string_view digits, char (*fold)(char)) {
  DigitValues values{};
  values.fill(-1);
  std::int8_t value = 0;
  for (const char digit : digits) {
    values[static_cast<unsigned char>(digit)] = value;
    values[static_cast<unsigned char>(fold(digit))] = value++;
  }
  return values;
}
constexpr DigitValues kHexValues = ValuesOf(kHexDigits, FoldCase);
constexpr DigitValues kBase64Values = ValuesOf(kBase64Alphabet, [](char c) { return c; });

/// Neither a table nor a branch, so that the compiler makes many at once.
constexpr char HexDigit(unsigned value) {
  return static_cast<char>(value + (value > 9 ? kHexDigits[10] - 10 : kHexDigits[0]));
}

int ValueOf(char c, const DigitValues& values) {
  return values[static_cast<unsigned char>(c)];
}

/// Reads digits of `base` up to the first other character; saturates at `limit`.
std::uint64_t ParseDigits(std::string_view text, unsigned base, std::uint64_t limit) {
  std::uint64_t number = 0;
  for (const char c : text) {
    const int digit = ValueOf(c, kHexValues);
    if (digit < 0 || static_cast<unsigned>(digit) >= base) break;
    const auto value = static_cast<std::uint64_t>(digit);
    if (number > (limit - value) / base) return limit;
    number = number * base + value;
  }
  return number;
}

/// What an armoured text holds between its first line and the next '-'; other texts are returned
/// whole.
std::string_view Base64Body(std::string_view text) {
  text = UpToZero(text);
  if (!text.starts_with('-')) return text;
  const std::size_t lineEnd = text.find('\n');
  if (lineEnd == std::string_view::npos) return {};
  text.remove_prefix(lineEnd + 1);
  return text.substr(0, text.find('-'));
}

using Finder = std::size_t (*)(std::string_view text, std::string_view pattern, std::size_t from);

bool ReplaceFound(std::string& text, Finder find, std::string_view from, std::string_view to,
                  std::size_t maxLength) {
  if (from.empty() || from == to) return false;
  std::string result;
  std::size_t length = text.size();  // of the result, with the rest as it stands
  std::size_t copied = 0;
  for (;;) {
    const std::size_t position = find(text, from, copied);
    if (position == std::string_view::npos || length - from.size() + to.size() > maxLength) break;
    result.append(text, copied, position - copied).append(to);
    length = length - from.size() + to.size();
    copied = position + from.size();
  }
  if (copied == 0) return false;
  result.append(text, copied);
  text = std::move(result);
  return true;
}

constexpr char32_t kReplacementCharacter = 0xFFFD;
constexpr char32_t kLastCharacter = 0x10FFFF;

bool IsHighSurrogate(char32_t unit) {
  return unit >= 0xD800 && unit <= 0xDBFF;
}
bool IsLowSurrogate(char32_t unit) {
  return unit >= 0xDC00 && unit <= 0xDFFF;
}
bool IsCharacter(char32_t code) {
  return code <= kLastCharacter && !IsHighSurrogate(code) && !IsLowSurrogate(code);
}

}  // namespace

// --- comparison and search --------------------------------------------------------------------

int CompareNoCase(std::string_view a, std::string_view b, std::size_t limit) {
  a = a.substr(0, limit);
  b = b.substr(0, limit);
  const auto [left, right] = std::ranges::mismatch(a, b, {}, FoldedByte, FoldedByte);
  if (left != a.end() && right != b.end()) return FoldedByte(*left) - FoldedByte(*right);
  return (a.size() > b.size()) - (a.size() < b.size());
}

bool StartsWithNoCase(std::string_view text, std::string_view head) {
  return CompareNoCase(text.substr(0, head.size()), head) == 0;
}

std::size_t FindText(std::string_view text, std::string_view pattern, std::size_t from) {
  if (from > text.size() || pattern.size() > text.size() - from) return std::string_view::npos;
  if (pattern.empty()) return from;
  // The quickest way where the first character is rare. A text can be full of it.
  constexpr std::size_t kRare = 64;
  constexpr std::size_t kFirstTries = 8;
  std::size_t at = text.find(pattern.front(), from);
  for (std::size_t tries = 0; at != std::string_view::npos; ++tries) {
    if (tries > kFirstTries + (at - from) / kRare) break;
    if (text.substr(at).starts_with(pattern)) return at;
    at = text.find(pattern.front(), at + 1);
  }
  if (at == std::string_view::npos) return at;
  const void* const found =
      ::memmem(text.data() + at, text.size() - at, pattern.data(), pattern.size());
  if (found == nullptr) return std::string_view::npos;
  return static_cast<std::size_t>(static_cast<const char*>(found) - text.data());
}

std::size_t FindTextNoCase(std::string_view text, std::string_view pattern, std::size_t from) {
  if (from > text.size() || pattern.size() > text.size() - from) return std::string_view::npos;
  if (pattern.empty()) return from;
  // Horspool's search: the character above the pattern's last one tells how far the pattern moves.
  const std::size_t last = pattern.size() - 1;
  std::array<std::size_t, 256> step{};
  step.fill(pattern.size());
  for (std::size_t i = 0; i < last; ++i) step[FoldedByte(pattern[i])] = last - i;
  for (std::size_t at = from; at <= text.size() - pattern.size();
       at += step[FoldedByte(text[at + last])]) {
    if (CompareNoCase(text.substr(at, pattern.size()), pattern) == 0) return at;
  }
  return std::string_view::npos;
}

// --- pieces -----------------------------------------------------------------------------------

std::string_view SkipBlanks(std::string_view text) {
  const std::size_t first = text.find_first_not_of(' ');
  return first == std::string_view::npos ? text.substr(text.size()) : text.substr(first);
}

std::string_view DropTrailingBlanks(std::string_view text) {
  return text.substr(0, text.find_last_not_of(' ') + 1);
}

std::optional<std::string_view> GetField(std::string_view text, std::size_t index, char separator) {
  for (; index != 0; --index) {
    const std::size_t end = text.find(separator);
    if (end == std::string_view::npos) return std::nullopt;
    text.remove_prefix(end + 1);
  }
  return text.substr(0, text.find(separator));
}

std::uint64_t ParseDecimal(std::string_view text) {
  return ParseDigits(SkipBlanks(text), 10, std::numeric_limits<std::uint64_t>::max());
}

std::int64_t ParseSigned(std::string_view text) {
  constexpr std::uint64_t kMost = std::numeric_limits<std::int64_t>::max();
  text = SkipBlanks(text);
  if (!text.starts_with('-')) return static_cast<std::int64_t>(ParseDigits(text, 10, kMost));
  const std::uint64_t amount = ParseDigits(text.substr(1), 10, kMost + 1);
  return static_cast<std::int64_t>(0 - amount);
}

std::uint64_t ParseNumber(std::string_view text) {
  text = SkipBlanks(text);
  if (!StartsWithNoCase(text, "0x")) return ParseDecimal(text);
  return ParseDigits(text.substr(2), 16, std::numeric_limits<std::uint64_t>::max());
}

// --- replacement -----------------------------------------------------------------------------

void ReplaceAll(std::string& text, std::string_view from, std::string_view to,
                std::size_t maxLength) {
  ReplaceFound(text, FindText, from, to, maxLength);
}

bool ReplaceAllNoCase(std::string& text, std::string_view from, std::string_view to,
                      std::size_t maxLength) {
  return ReplaceFound(text, FindTextNoCase, from, to, maxLength);
}

// --- codecs -----------------------------------------------------------------------------------

std::string HexEncode(std::span<const std::uint8_t> data) {
  std::string text(2 * data.size(), '\0');
  char* const to = text.data();
  for (std::size_t i = 0; i < data.size(); ++i) {
    to[2 * i] = HexDigit(data[i] >> 4);
    to[2 * i + 1] = HexDigit(data[i] & 0x0F);
  }
  return text;
}

std::vector<std::uint8_t> HexDecode(std::string_view text) {
  if (text.size() >= 3 && text.starts_with("0x")) text.remove_prefix(2);
  std::vector<std::uint8_t> data(text.size() / 2);
  std::size_t digits = 0;
  int high = 0;
  for (const char c : text) {
    const int digit = ValueOf(c, kHexValues);
    if (digit < 0) continue;
    if (digits++ % 2 == 0) {
      high = digit << 4;
    } else {
      data[digits / 2 - 1] = static_cast<std::uint8_t>(high | digit);
    }
  }
  data.resize(digits / 2);
  return data;
}

std::vector<std::uint8_t> Base64Decode(std::string_view text) {
  text = Base64Body(text);
  text = text.substr(0, text.find('='));
  std::vector<std::uint8_t> data(text.size() * 6 / 8);
  std::uint8_t* to = data.data();
  std::uint32_t bits = 0;
  unsigned pending = 0;  // bits read and not yet written
  for (const char c : text) {
    const int value = ValueOf(c, kBase64Values);
    if (value < 0) continue;
    bits = bits << 6 | static_cast<std::uint32_t>(value);
    pending += 6;
    if (pending < 8) continue;
    pending -= 8;
    *to++ = static_cast<std::uint8_t>(bits >> pending);
  }
  data.resize(static_cast<std::size_t>(to - data.data()));
  return data;
}

// --- conversions ------------------------------------------------------------------------------

void AppendUtf8(std::string& text, char32_t character) {
  const char32_t code = IsCharacter(character) ? character : kReplacementCharacter;
  const auto put = [&text](char32_t byte) { text.push_back(static_cast<char>(byte)); };
  if (code < 0x80) return put(code);
  unsigned tails = code < 0x800 ? 1 : code < 0x10000 ? 2 : 3;
  put(0xFFU << (7 - tails) | code >> 6 * tails);
  while (tails-- > 0) put(0x80 | (code >> 6 * tails & 0x3F));
}

std::optional<char32_t> TakeUtf8(std::string_view& text) {
  // The ones that a first byte begins with tell the length; a smaller character has a shorter form.
  constexpr char32_t kFirstOfForm[] = {0, 0, 0x80, 0x800, 0x10000};
  const auto head = static_cast<unsigned char>(text.front());
  const auto ones = static_cast<std::size_t>(std::countl_one(head));
  text.remove_prefix(1);
  if (ones == 0) return head;
  const std::size_t tails = ones - 1;
  if (ones == 1 || ones > 4 || tails > text.size()) return std::nullopt;
  char32_t code = head & 0x7FU >> ones;
  for (const char c : text.substr(0, tails)) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte & 0xC0) != 0x80) return std::nullopt;
    code = code << 6 | (byte & 0x3F);
  }
  if (code < kFirstOfForm[ones] || !IsCharacter(code)) return std::nullopt;
  text.remove_prefix(tails);
  return code;
}

std::string Utf16ToUtf8(std::span<const std::uint8_t> bytes, std::endian order) {
  const std::size_t units = bytes.size() / 2;
  const std::size_t low = order == std::endian::little ? 0 : 1;
  const auto unit = [bytes, low](std::size_t i) -> char32_t {
    return bytes[2 * i + low] | static_cast<char32_t>(bytes[2 * i + 1 - low]) << 8;
  };
  std::string text;
  text.reserve(units);
  for (std::size_t i = 0; i < units; ++i) {
    char32_t character = unit(i);
    if (IsHighSurrogate(character) && i + 1 < units && IsLowSurrogate(unit(i + 1))) {
      character = 0x10000 + ((character - 0xD800) << 10) + (unit(++i) - 0xDC00);
    }
    AppendUtf8(text, character);
  }
  return text;
}

}  // namespace qixx::runtime
