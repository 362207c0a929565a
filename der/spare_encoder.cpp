#include "der/spare_encoder.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <optional>
#include <utility>

#include "der/names.h"
#include "runtime/trace.h"

namespace qixx::der {
namespace {

std::size_t LongestHeader(std::size_t maxSize) {
  if (maxSize <= 0x7F) return 2;
  if (maxSize <= 0xFF) return 3;
  if (maxSize <= 0xFFFF) return 4;
  return maxSize < 0x1000000 ? 5 : 6;
}

std::vector<std::uint8_t> Header(std::uint8_t tag, std::size_t length) {
  if (length <= 0x7F) return {tag, static_cast<std::uint8_t>(length)};
  std::vector<std::uint8_t> bytes;
  for (std::size_t rest = length; rest != 0; rest >>= 8) {
    bytes.push_back(static_cast<std::uint8_t>(rest));
  }
  bytes.push_back(static_cast<std::uint8_t>(0x80 + bytes.size()));
  bytes.push_back(tag);
  std::reverse(bytes.begin(), bytes.end());
  return bytes;
}

/// Takes the next number off a dotted text; nothing when the text does not begin with one.
std::optional<std::uint64_t> TakeNumber(std::string_view& dotted) {
  std::uint64_t number = 0;
  const char* const end = dotted.data() + dotted.size();
  const auto [stop, error] = std::from_chars(dotted.data(), end, number);
  if (error != std::errc{} || (stop != end && *stop != '.')) return std::nullopt;
  // A dot is followed by a number, so the text does not end in one.
  if (stop != end && stop + 1 == end) return std::nullopt;
  dotted.remove_prefix(static_cast<std::size_t>(stop - dotted.data()) + (stop == end ? 0 : 1));
  return number;
}

/// The first two numbers share a subidentifier (X.690 8.19.4).
std::optional<std::uint64_t> TakeFirstNumbers(std::string_view& dotted) {
  const std::optional<std::uint64_t> root = TakeNumber(dotted);
  if (!root || *root > 2) return std::nullopt;
  const std::optional<std::uint64_t> second = TakeNumber(dotted);
  if (!second || (*root < 2 && *second > 39)) return std::nullopt;
  if (*second > std::numeric_limits<std::uint64_t>::max() - *root * 40) return std::nullopt;
  return *root * 40 + *second;
}

/// Base 128, the high bit set in all bytes but the last.
void AppendSubidentifier(std::vector<std::uint8_t>& content, std::uint64_t value) {
  unsigned shift = 0;
  while (shift + 7 < 64 && value >> (shift + 7) != 0) shift += 7;
  for (; shift != 0; shift -= 7) {
    content.push_back(static_cast<std::uint8_t>(0x80 | (value >> shift & 0x7F)));
  }
  content.push_back(static_cast<std::uint8_t>(value & 0x7F));
}

EncodedOid EncodeDotted(std::string_view dotted, std::size_t maxSize) {
  std::vector<std::uint8_t> content;
  std::optional<std::uint64_t> value = TakeFirstNumbers(dotted);
  while (value) {
    AppendSubidentifier(content, *value);
    if (content.size() > maxSize) return {DerResult::kTooSmall, {}};
    if (dotted.empty()) return {DerResult::kOk, std::move(content)};
    value = TakeNumber(dotted);
  }
  return {DerResult::kWrongTag, {}};
}

}  // namespace

DerResult WrapElement(std::uint8_t tag, std::vector<std::uint8_t>& content, std::size_t maxSize) {
  const std::size_t room = maxSize - std::min(content.size(), maxSize);
  const std::size_t need = LongestHeader(maxSize);
  if (room < need) {
    runtime::TraceWrite("Der - Buffer too small: have %d, need %d", static_cast<int>(room),
                        static_cast<int>(need));
    return DerResult::kTooSmall;
  }
  if (content.size() > std::numeric_limits<std::uint32_t>::max()) return DerResult::kBadLength;
  const std::vector<std::uint8_t> header = Header(tag, content.size());
  content.insert(content.begin(), header.begin(), header.end());
  return DerResult::kOk;
}

EncodedOid EncodeOid(std::string_view name, std::size_t maxSize) {
  const bool isDotted = name.find('.') != std::string_view::npos;
  const std::string_view dotted = isDotted ? name : DottedAttributeName(name);
  if (dotted.empty()) {
    runtime::TraceWrite("Der - Bad oid: '%.*s'", static_cast<int>(name.size()), name.data());
    return {DerResult::kWrongTag, {}};
  }
  EncodedOid oid = EncodeDotted(dotted, maxSize);
  if (oid.result == DerResult::kOk) oid.result = WrapElement(kTagOid, oid.element, maxSize);
  if (oid.result != DerResult::kOk) oid.element.clear();
  return oid;
}

}  // namespace qixx::der
