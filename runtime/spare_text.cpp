#include "runtime/spare_text.h"

#include <algorithm>

#include "runtime/text.h"

namespace qixx::runtime {
namespace {

constexpr std::size_t kBase64LineLength = 64;

std::size_t Base64Length(std::size_t length) {
  return (length + 2) / 3 * 4;
}

/// Writes the characters of one group of up to three bytes.
void EncodeGroup(std::span<const std::uint8_t> group, char* out) {
  const std::uint32_t bits = static_cast<std::uint32_t>(group[0]) << 16 |
                             static_cast<std::uint32_t>(group.size() > 1 ? group[1] : 0) << 8 |
                             static_cast<std::uint32_t>(group.size() > 2 ? group[2] : 0);
  out[0] = kBase64Alphabet[bits >> 18];
  out[1] = kBase64Alphabet[bits >> 12 & 0x3F];
  out[2] = group.size() > 1 ? kBase64Alphabet[bits >> 6 & 0x3F] : '=';
  out[3] = group.size() > 2 ? kBase64Alphabet[bits & 0x3F] : '=';
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
  std::string text(Base64Length(data.size()), '\0');
  char* group = text.data();
  for (std::size_t at = 0; at < data.size(); at += 3, group += 4) {
    EncodeGroup(data.subspan(at, std::min<std::size_t>(3, data.size() - at)), group);
  }
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
