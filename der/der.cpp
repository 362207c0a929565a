#include "der/der.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>

#include "runtime/trace.h"

namespace qixx::der {
namespace {

constexpr std::uint8_t kIndefinite = 0x80;
constexpr std::size_t kClosingPair = 2;
constexpr std::size_t kShortHeader = 2;

/// A number too large for 64 bits saturates.
std::uint64_t ReadBigEndian(Bytes bytes) {
  std::uint64_t number = 0;
  for (const std::uint8_t byte : bytes) {
    if (number >> 56 != 0) return std::numeric_limits<std::uint64_t>::max();
    number = number << 8 | byte;
  }
  return number;
}

std::optional<DerLength> CheckedLength(std::size_t header, std::uint64_t content,
                                       std::size_t available) {
  if (content > available || content > std::numeric_limits<std::int32_t>::max()) {
    return std::nullopt;
  }
  return DerLength{header, static_cast<std::size_t>(content)};
}

std::optional<DerLength> LengthOf(Bytes bytes, int nesting);

/// The length of an element whose content ends with a pair of zero bytes, which it counts. A nested
/// element without content ends it, too, and is not counted.
std::optional<DerLength> IndefiniteLength(Bytes bytes, int nesting) {
  if (nesting >= kMaxNesting) return std::nullopt;
  std::size_t scanned = 0;
  Bytes rest = bytes.subspan(kShortHeader);
  while (rest.size() < kClosingPair || rest[0] != 0 || rest[1] != 0) {
    const std::optional<DerLength> nested = LengthOf(rest, nesting + 1);
    if (!nested) return std::nullopt;
    if (nested->content == 0) return CheckedLength(kShortHeader, scanned, bytes.size());
    const std::size_t step = nested->header + nested->content;
    scanned += step;
    rest = rest.subspan(std::min(step, rest.size()));
  }
  return CheckedLength(kShortHeader, scanned + kClosingPair, bytes.size());
}

std::optional<DerLength> DefiniteLength(Bytes bytes) {
  const std::uint8_t first = bytes[1];
  if (first < 0x80) return CheckedLength(kShortHeader, first, bytes.size());
  const std::size_t count = first & 0x7F;
  const std::size_t header = kShortHeader + count;
  if (bytes.size() < header) return std::nullopt;
  return CheckedLength(header, ReadBigEndian(bytes.subspan(kShortHeader, count)), bytes.size());
}

std::optional<DerLength> LengthOf(Bytes bytes, int nesting) {
  if (bytes.size() < kShortHeader) return std::nullopt;
  return bytes[1] == kIndefinite ? IndefiniteLength(bytes, nesting) : DefiniteLength(bytes);
}

/// Room for what a piece of a dotted text needs at most: two numbers and a dot.
constexpr std::size_t kMaxPiece = 16;

/// Writes a piece of a dotted text and returns its end. The first subidentifier stands for two
/// numbers (X.690 8.19.4). Numbers are signed and of 32 bits here, whatever was encoded.
char* WritePiece(char* at, std::uint64_t value, bool first) {
  if (first) {
    const std::uint64_t root = std::min<std::uint64_t>(value / 40, 2);
    value -= root * 40;
    *at++ = static_cast<char>('0' + root);
  }
  *at = '.';
  const auto number = static_cast<std::int32_t>(static_cast<std::uint32_t>(value));
  return std::to_chars(at + 1, at + kMaxPiece - 1, number).ptr;
}

OidRecord ContentToText(const DerElement& oid, std::size_t maxLength) {
  // Written here and made a string once, since every certificate has dozens of identifiers.
  std::array<char, kMaxOidText + kMaxPiece> text;
  const char* const limit = text.data() + std::min(maxLength, kMaxOidText);
  char* end = text.data();
  for (Bytes rest = oid.Content(); !rest.empty();) {
    const std::optional<Subidentifier> next = DecodeSubidentifier(rest);
    if (!next) return {DerResult::kBadLength};
    rest = rest.subspan(next->length);
    char* const behind = WritePiece(end, next->value, end == text.data());
    if (behind > limit) return {DerResult::kTooSmall, std::string(text.data(), end), oid.whole};
    end = behind;
  }
  return {DerResult::kOk, std::string(text.data(), end), oid.whole};
}

}  // namespace

std::optional<DerLength> DecodeLength(Bytes bytes) {
  const std::optional<DerLength> length = LengthOf(bytes, 0);
  if (!length) runtime::TraceWrite("Der - Invalid length encoding");
  return length;
}

std::optional<ParsedElement> ParseElement(Bytes bytes) {
  const std::optional<DerLength> length = DecodeLength(bytes);
  if (!length) return std::nullopt;
  const Bytes rest = bytes.subspan(length->header);
  return ParsedElement{rest.first(std::min(length->content, rest.size())), length->content,
                       length->header};
}

std::optional<DerElement> ReadElement(Bytes bytes) {
  const std::optional<DerLength> length = DecodeLength(bytes);
  if (!length || length->content > bytes.size() - length->header) return std::nullopt;
  return DerElement{bytes.first(length->header + length->content), length->header};
}

std::optional<DerElement> TakeElement(Bytes& rest) {
  std::optional<DerElement> element = rest.empty() ? std::nullopt : ReadElement(rest);
  if (element) rest = rest.subspan(element->whole.size());
  return element;
}

Bytes ContentOf(Bytes bytes) {
  const std::optional<DerElement> element = TakeElement(bytes);
  return element ? element->Content() : Bytes{};
}

bool SameBytes(Bytes a, Bytes b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end());
}

std::optional<Subidentifier> DecodeSubidentifier(Bytes bytes) {
  Subidentifier number{0, 0};
  for (const std::uint8_t byte : bytes) {
    number.value = number.value << 7 | (byte & 0x7F);
    ++number.length;
    if ((byte & 0x80) == 0) return number;
  }
  return std::nullopt;
}

OidRecord OidToText(Bytes bytes, std::size_t maxLength) {
  if (bytes.size() < kShortHeader) return {DerResult::kBadLength};
  if (bytes[0] != kTagOid) return {DerResult::kWrongTag};
  const std::optional<DerElement> element = ReadElement(bytes);
  return element ? ContentToText(*element, maxLength) : OidRecord{DerResult::kBadLength};
}

void CDer::Clear() {
  data_ = {};
  dataLength_ = 0;
}

DerResult CDer::SetData(Bytes bytes) {
  data_.assign(bytes.begin(), bytes.end());
  dataLength_ = bytes.size();
  return DerResult::kOk;
}

void CDer::ShortenData(std::size_t length) {
  dataLength_ = std::min(dataLength_, length);
}

}  // namespace qixx::der
