#include "runtime/spare_text.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "runtime/text.h"

namespace qixx::runtime {
namespace {

constexpr std::size_t kBase64LineLength = 64;
/// Bytes that four characters stand for.
constexpr std::size_t kGroup = 3;

std::size_t Base64Length(std::size_t length) {
  return (length + kGroup - 1) / kGroup * 4;
}

/// The two characters of each number of 12 bits.
using CharacterPair = std::array<char, 2>;
constexpr std::array<CharacterPair, 1 << 12> kPairs = [] {
  std::array<CharacterPair, 1 << 12> pairs{};
  for (std::size_t bits = 0; bits < pairs.size(); ++bits) {
    pairs[bits] = {kBase64Alphabet[bits >> 6], kBase64Alphabet[bits & 0x3F]};
  }
  return pairs;
}();

/// Writes the four characters of three bytes.
void EncodeGroup(const std::uint8_t* bytes, char* out) {
  const std::uint32_t bits = static_cast<std::uint32_t>(bytes[0]) << 16 |
                             static_cast<std::uint32_t>(bytes[1]) << 8 | bytes[2];
  std::memcpy(out, kPairs[bits >> 12].data(), 2);
  std::memcpy(out + 2, kPairs[bits & 0xFFF].data(), 2);
}

}  // namespace

std::size_t FindChar(std::string_view text, char c) {
  const std::size_t position = text.find(c);
  return position == std::string_view::npos && c == '\0' ? text.size() : position;
}

std::optional<std::string> Duplicate(const char* text) {
  if (text == nullptr) return std::nullopt;
  return text;
}

std::string Base64Encode(std::span<const std::uint8_t> data) {
  std::string text(Base64Length(data.size()), '=');
  char* group = text.data();
  for (; data.size() >= kGroup; data = data.subspan(kGroup), group += 4) {
    EncodeGroup(data.data(), group);
  }
  if (data.empty()) return text;
  std::array<std::uint8_t, kGroup> last{};
  std::ranges::copy(data, last.begin());
  EncodeGroup(last.data(), group);
  std::fill(group + data.size() + 1, group + 4, '=');
  return text;
}

std::string Base64EncodeLines(std::span<const std::uint8_t> data) {
  const std::string encoded = Base64Encode(data);
  std::string text;
  for (std::size_t at = 0; at < encoded.size(); at += kBase64LineLength) {
    text.append(encoded, at, kBase64LineLength).push_back('\n');
  }
  if (text.empty()) text.push_back('\n');
  return text;
}

}  // namespace qixx::runtime
