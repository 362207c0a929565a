#include "der/der.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <limits>
#include <new>
#include <string>

#include "der/names.h"
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

std::int32_t CheckedLength(std::uint64_t length, std::size_t available) {
  const bool fits = length <= available && length <= std::numeric_limits<std::int32_t>::max();
  return fits ? static_cast<std::int32_t>(length) : kDerBadLength;
}

std::int32_t LengthOf(Bytes bytes, std::size_t& headerLength, int nesting);

/// The length of a content of indefinite length, closing pair included. An element without content
/// ends the scan without one.
std::int32_t ScanIndefinite(Bytes content, int nesting) {
  if (nesting >= kDerMaxNesting) return kDerBadLength;
  std::size_t scanned = 0;
  Bytes rest = content;
  while (rest.size() < kClosingPair || rest[0] != 0 || rest[1] != 0) {
    std::size_t headerLength = 0;
    const std::int32_t nested = LengthOf(rest, headerLength, nesting + 1);
    if (nested < 0) return nested;
    if (nested == 0) return CheckedLength(scanned, content.size());
    const std::size_t step = headerLength + static_cast<std::size_t>(nested);
    scanned += step;
    rest = rest.subspan(std::min(step, rest.size()));
  }
  return CheckedLength(scanned + kClosingPair, content.size());
}

std::int32_t LengthOf(Bytes bytes, std::size_t& headerLength, int nesting) {
  headerLength = kShortHeader;
  if (bytes.size() < kShortHeader) return kDerBadLength;
  const std::uint8_t first = bytes[1];
  if (first < 0x80) return CheckedLength(first, bytes.size());
  if (first == kIndefinite) return ScanIndefinite(bytes.subspan(kShortHeader), nesting);

  const std::size_t count = first & 0x7F;
  headerLength = kShortHeader + count;
  if (bytes.size() < headerLength) return kDerBadLength;
  return CheckedLength(ReadBigEndian(bytes.subspan(kShortHeader, count)), bytes.size());
}

/// Reads the first element, which must be an identifier. `element` stays as it is on failure.
std::int32_t OpenOid(Bytes bytes, DerElement& element) {
  if (bytes.size() < kShortHeader) return kDerBadLength;
  if (bytes[0] != kTagOid) return kDerWrongTag;
  return ReadElement(bytes, element);
}

/// Builds a terminated text piece by piece.
class PieceWriter {
 public:
  explicit PieceWriter(std::span<char> text) : text_(text) { Terminate(); }

  bool Append(std::string_view piece) {
    if (text_.size() - used_ <= piece.size()) return false;
    std::memcpy(text_.data() + used_, piece.data(), piece.size());
    used_ += piece.size();
    Terminate();
    return true;
  }
  void Empty() {
    used_ = 0;
    Terminate();
  }

 private:
  void Terminate() {
    if (!text_.empty()) text_[used_] = '\0';
  }

  std::span<char> text_;
  std::size_t used_ = 0;
};

/// One piece of a dotted identifier: two numbers for the first subidentifier, ".%d" for the others.
class OidPiece {
 public:
  void First(std::uint64_t value) {
    const std::uint64_t root = std::min<std::uint64_t>(value / 40, 2);
    used_ = 0;
    AddNumber(root);
    AddDot();
    AddNumber(value - root * 40);
  }
  void Later(std::uint64_t value) {
    used_ = 0;
    AddDot();
    AddNumber(value);
  }
  [[nodiscard]] std::string_view Text() const { return {scratch_.data(), used_}; }

 private:
  void AddDot() { scratch_[used_++] = '.'; }
  /// Numbers are signed and of 32 bits here, whatever was encoded.
  void AddNumber(std::uint64_t value) {
    const auto number = static_cast<std::int32_t>(static_cast<std::uint32_t>(value));
    char* const end = scratch_.data() + scratch_.size();
    used_ = static_cast<std::size_t>(std::to_chars(scratch_.data() + used_, end, number).ptr -
                                     scratch_.data());
  }

  std::array<char, 32> scratch_;
  std::size_t used_ = 0;
};

std::int32_t ContentToText(Bytes content, PieceWriter& text) {
  OidPiece piece;
  for (bool first = true; !content.empty(); first = false) {
    std::uint64_t value = 0;
    const std::size_t consumed = DecodeSubidentifier(value, content);
    if (consumed == 0) {
      text.Empty();
      return kDerBadLength;
    }
    content = content.subspan(consumed);
    if (first) {
      piece.First(value);
    } else {
      piece.Later(value);
    }
    if (!text.Append(piece.Text())) return kDerTooSmall;
  }
  return kDerOk;
}

// --- encoding ---------------------------------------------------------------------------------

std::size_t LongestHeader(std::size_t capacity) {
  if (capacity <= 0x7F) return 2;
  if (capacity <= 0xFF) return 3;
  if (capacity <= 0xFFFF) return 4;
  return capacity < 0x1000000 ? 5 : 6;
}

std::size_t LengthBytes(std::size_t length) {
  std::size_t count = 1;
  while (length >>= 8) ++count;
  return count;
}

void WriteHeader(std::uint8_t tag, std::size_t length, std::size_t headerLength,
                 std::uint8_t* out) {
  out[0] = tag;
  out[1] = static_cast<std::uint8_t>(length);
  if (headerLength == kShortHeader) return;
  out[1] = static_cast<std::uint8_t>(0x80 + headerLength - kShortHeader);
  for (std::size_t at = headerLength - 1; at >= kShortHeader; --at, length >>= 8) {
    out[at] = static_cast<std::uint8_t>(length);
  }
}

/// Takes the next number off a dotted text; false when the text does not begin with one.
bool TakeNumber(std::string_view& dotted, std::uint64_t& number) {
  const char* const end = dotted.data() + dotted.size();
  const auto [stop, error] = std::from_chars(dotted.data(), end, number);
  if (error != std::errc{} || (stop != end && *stop != '.')) return false;
  // A dot is followed by a number, so the text does not end in one.
  if (stop != end && stop + 1 == end) return false;
  dotted.remove_prefix(static_cast<std::size_t>(stop - dotted.data()) + (stop == end ? 0 : 1));
  return true;
}

bool AppendSubidentifier(std::uint64_t value, std::span<std::uint8_t> out, std::size_t& used) {
  std::size_t count = 1;
  for (std::uint64_t rest = value >> 7; rest != 0; rest >>= 7) ++count;
  if (out.size() - used < count) return false;
  for (std::size_t i = count; i-- > 0; value >>= 7) {
    const unsigned more = i + 1 == count ? 0x00 : 0x80;
    out[used + i] = static_cast<std::uint8_t>((value & 0x7F) | more);
  }
  used += count;
  return true;
}

/// The two first numbers share a subidentifier (X.690 8.19.4).
bool JoinFirstNumbers(std::uint64_t root, std::uint64_t second, std::uint64_t& joined) {
  if (root > 2 || (root < 2 && second > 39)) return false;
  joined = root * 40 + second;
  return joined >= second;
}

std::int32_t EncodeDotted(std::string_view dotted, std::span<std::uint8_t> out, std::size_t& used) {
  std::uint64_t root = 0;
  std::uint64_t value = 0;
  if (!TakeNumber(dotted, root) || !TakeNumber(dotted, value)) return kDerWrongTag;
  if (!JoinFirstNumbers(root, value, value)) return kDerWrongTag;
  for (;;) {
    if (!AppendSubidentifier(value, out, used)) return kDerTooSmall;
    if (dotted.empty()) return kDerOk;
    if (!TakeNumber(dotted, value)) return kDerWrongTag;
  }
}

}  // namespace

std::int32_t DecodeLength(Bytes bytes, std::size_t& headerLength) {
  const std::int32_t length = LengthOf(bytes, headerLength, 0);
  if (length < 0) runtime::TraceWrite("Der - Invalid length encoding");
  return length;
}

std::int32_t ParseElement(Bytes bytes, const std::uint8_t*& content, std::size_t& contentLength,
                          std::size_t* headerLength) {
  std::size_t header = 0;
  const std::int32_t length = DecodeLength(bytes, header);
  if (length < 0) return length;
  content = bytes.data() + header;
  contentLength = static_cast<std::size_t>(length);
  if (headerLength != nullptr) *headerLength = header;
  return kDerOk;
}

std::int32_t ReadElement(Bytes bytes, DerElement& element) {
  const std::uint8_t* content = nullptr;
  std::size_t length = 0;
  std::size_t header = 0;
  const std::int32_t result = ParseElement(bytes, content, length, &header);
  if (result != kDerOk) return result;
  if (length > bytes.size() - header) return kDerBadLength;
  element.whole = bytes.first(header + length);
  element.content = element.whole.subspan(header);
  return kDerOk;
}

std::int32_t TakeElement(Bytes& rest, DerElement& element) {
  if (rest.empty()) return kDerBadLength;
  const std::int32_t result = ReadElement(rest, element);
  if (result == kDerOk) rest = rest.subspan(element.whole.size());
  return result;
}

Bytes ContentOf(Bytes bytes) {
  DerElement element;
  return TakeElement(bytes, element) == kDerOk ? element.content : Bytes{};
}

bool SameBytes(Bytes a, Bytes b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end());
}

std::size_t DecodeSubidentifier(std::uint64_t& value, Bytes bytes) {
  value = 0;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    value = value << 7 | (bytes[i] & 0x7F);
    if ((bytes[i] & 0x80) == 0) return i + 1;
  }
  return 0;
}

std::int32_t OidToText(Bytes bytes, std::span<char> text) {
  PieceWriter writer(text);
  DerElement element;
  const std::int32_t result = OpenOid(bytes, element);
  return result == kDerOk ? ContentToText(element.content, writer) : result;
}

std::int32_t ReadOid(Bytes bytes, OidRecord& record) {
  PieceWriter writer(record.text);
  DerElement element;
  const std::int32_t result = OpenOid(bytes, element);
  record.element = element.whole;
  return result == kDerOk ? ContentToText(element.content, writer) : result;
}

std::int32_t WrapElement(std::uint8_t tag, std::span<std::uint8_t> buffer, std::size_t& length) {
  const std::size_t room = buffer.size() - std::min(length, buffer.size());
  const std::size_t need = LongestHeader(buffer.size());
  if (room < need) {
    runtime::TraceWrite("Der - Buffer too small: have %d, need %d", static_cast<int>(room),
                        static_cast<int>(need));
    return kDerTooSmall;
  }
  if (length > std::numeric_limits<std::uint32_t>::max()) return kDerBadLength;
  const std::size_t header = kShortHeader + (length <= 0x7F ? 0 : LengthBytes(length));
  std::memmove(buffer.data() + header, buffer.data(), length);
  WriteHeader(tag, length, header, buffer.data());
  length += header;
  return kDerOk;
}

std::int32_t EncodeOid(std::string_view name, std::span<std::uint8_t> out, std::size_t& length) {
  const bool isDotted = name.find('.') != std::string_view::npos;
  const std::string_view dotted = isDotted ? name : DottedAttributeName(name);
  if (dotted.empty()) {
    runtime::TraceWrite("Der - Bad oid: '%.*s'", static_cast<int>(name.size()), name.data());
    return kDerWrongTag;
  }
  std::size_t used = 0;
  std::int32_t result = EncodeDotted(dotted, out, used);
  if (result == kDerOk) result = WrapElement(kTagOid, out, used);
  if (result == kDerOk) length = used;
  return result;
}

CDer::~CDer() = default;

std::int32_t CDer::Clear() {
  data_.reset();
  dataLength_ = 0;
  workingLength_ = 0;
  return kDerOk;
}

std::int32_t CDer::SetData(Bytes bytes) {
  dataLength_ = bytes.size();
  workingLength_ = bytes.size();
  data_.reset(new (std::nothrow) std::uint8_t[bytes.size()]);
  if (data_ == nullptr) {
    runtime::TraceWrite("Der - Out of memory");
    return kDerOutOfMemory;
  }
  std::copy(bytes.begin(), bytes.end(), data_.get());
  return kDerOk;
}

std::int32_t CDer::Decode() {
  return kDerNotSupported;
}

std::int32_t CDer::GetData(const std::uint8_t*& bytes, std::uint64_t& length) const {
  bytes = data_.get();
  length = dataLength_;
  return kDerOk;
}

Bytes CDer::Data() const {
  return data_ == nullptr ? Bytes{} : Bytes{data_.get(), dataLength_};
}

Bytes CDer::WorkingCopy() const {
  return data_ == nullptr ? Bytes{} : Bytes{data_.get(), workingLength_};
}

void CDer::ShortenData(std::size_t length) {
  dataLength_ = std::min(dataLength_, length);
}

}  // namespace qixx::der
