#include "runtime/spare_text.h"

#include <cstddef>

#include "runtime/text.h"

namespace qixx::runtime {
namespace {

constexpr std::size_t kBase64LineLength = 64;

}  // namespace

std::optional<std::string> Duplicate(const char* text) {
  if (text == nullptr) return std::nullopt;
  return text;
}

std::string Base64Encode(std::span<const std::uint8_t> data) {
  std::string text((data.size() + 2) / 3 * 4, '=');
  char* to = text.data();
  std::uint32_t bits = 0;
  unsigned pending = 0;  // bits taken and not yet written
  for (const std::uint8_t byte : data) {
    bits = bits << 8 | byte;
    for (pending += 8; pending >= 6; pending -= 6) {
      *to++ = kBase64Alphabet[bits >> (pending - 6) & 0x3F];
    }
  }
  if (pending != 0) *to = kBase64Alphabet[bits << (6 - pending) & 0x3F];
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
