// Reading and writing of DER (X.690), the ground that the certificate reader stands on.
//
// The readers work in place: what they hand out are views into the caller's bytes. Input may come
// from anywhere. Nothing behind it is ever read, nesting is bounded, and one pass over an element
// takes time linear in its size. Results are 0 or one of the negative DerResult values. A length
// that cannot be read is traced once, by DecodeLength; every other failure is the caller's to
// report. All functions may be called from any thread; an object belongs to one at a time.
//
//   Bytes rest = sequence.content;
//   DerElement element;
//   while (TakeElement(rest, element) == kDerOk) Use(element.Tag(), element.content);
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

namespace qixx::der {

using Bytes = std::span<const std::uint8_t>;

enum DerResult : std::int32_t {
  kDerOk = 0,
  kDerLeftOver = -1,  ///< bytes behind the last part of a certificate
  kDerOutOfMemory = -2,
  kDerWrongTag = -3,
  kDerBadLength = -4,      ///< length not readable, or input too short
  kDerTooSmall = -5,       ///< output too small
  kDerNotSupported = -666  ///< not offered by the class
};

inline constexpr std::uint8_t kTagInteger = 0x02;
inline constexpr std::uint8_t kTagBitString = 0x03;
inline constexpr std::uint8_t kTagOctetString = 0x04;
inline constexpr std::uint8_t kTagOid = 0x06;
inline constexpr std::uint8_t kTagSequence = 0x30;
inline constexpr std::uint8_t kTagSet = 0x31;

/// Indefinite lengths inside each other; no certificate comes near it.
inline constexpr int kDerMaxNesting = 32;

/// Size of a dotted identifier with its terminator.
inline constexpr std::size_t kOidTextSize = 64;

// --- elements ---------------------------------------------------------------------------------

/// Reads the header of the element at the start of `bytes`, whatever its tag, and returns the
/// length of its content, or kDerBadLength. `bytes` goes on to the end of the input.
///
/// Two leniencies, both intended and relied on. Indefinite lengths (X.690 8.1.3.6) are accepted;
/// such a content counts its closing pair of zero bytes, and a nested element without content ends
/// it in place of the pair. And the length is held against all of `bytes`, header included, so a
/// content may claim up to a header's size more than there is: the caller bounds what it reads.
[[nodiscard]] std::int32_t DecodeLength(Bytes bytes, std::size_t& headerLength);

/// Finds the content of the element at the start of `bytes` without looking at its tag or copying
/// anything. As lenient as DecodeLength: `contentLength` may run past the end of `bytes`.
[[nodiscard]] std::int32_t ParseElement(Bytes bytes, const std::uint8_t*& content,
                                        std::size_t& contentLength,
                                        std::size_t* headerLength = nullptr);

/// One element whose content lies inside the input as a whole.
struct DerElement {
  Bytes whole;  ///< with tag and length bytes
  Bytes content;

  /// 0 for an element that was never read.
  [[nodiscard]] std::uint8_t Tag() const { return whole.empty() ? std::uint8_t{0} : whole[0]; }
};

/// Reads the first element of `bytes`. kDerBadLength also for a content past the end of `bytes`.
[[nodiscard]] std::int32_t ReadElement(Bytes bytes, DerElement& element);

/// Reads the first element of `rest` and moves `rest` behind it; both stay as they are on failure.
/// An empty `rest` gives kDerBadLength without a trace line, so that a walk simply ends.
[[nodiscard]] std::int32_t TakeElement(Bytes& rest, DerElement& element);

/// The content of the first element of `bytes`, empty when it has or is none.
[[nodiscard]] Bytes ContentOf(Bytes bytes);

[[nodiscard]] bool SameBytes(Bytes a, Bytes b);

/// The bytes as characters, zeros included.
[[nodiscard]] inline std::string_view AsText(Bytes bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// --- object identifiers -----------------------------------------------------------------------

/// Reads one base-128 number (X.690 8.19.2) into `value` and returns the bytes it took. Numbers
/// over 64 bits lose their upper bits. 0 when `bytes` end before the number does.
[[nodiscard]] std::size_t DecodeSubidentifier(std::uint64_t& value, Bytes bytes);

/// Writes the object identifier at the start of `bytes` as dotted text, terminated. Subidentifiers
/// are printed as signed 32-bit numbers. On kDerTooSmall the text holds the pieces that went in; on
/// kDerWrongTag and kDerBadLength it is empty.
[[nodiscard]] std::int32_t OidToText(Bytes bytes, std::span<char> text);

struct OidRecord {
  Bytes element;  ///< the encoded identifier with tag and length
  char text[kOidTextSize];

  [[nodiscard]] std::string_view Text() const { return text; }
};

/// OidToText into a record. The element is empty when there is no identifier to read.
[[nodiscard]] std::int32_t ReadOid(Bytes bytes, OidRecord& record);

// --- encoding ---------------------------------------------------------------------------------

/// Turns the first `length` bytes of `buffer` into the content of an element, in place; `length`
/// becomes that of the whole element. Refuses with kDerTooSmall, leaving all as it is, when the
/// room left is less than the longest header that a buffer of this size could need.
[[nodiscard]] std::int32_t WrapElement(std::uint8_t tag, std::span<std::uint8_t> buffer,
                                       std::size_t& length);

/// Encodes an object identifier element from dotted text or from one of the short names of
/// der/names.h. kDerWrongTag for a name that is neither (traced unless it has a dot), kDerTooSmall
/// when it does not fit. `out` may have been written to on failure.
[[nodiscard]] std::int32_t EncodeOid(std::string_view name, std::span<std::uint8_t> out,
                                     std::size_t& length);

// --- objects ----------------------------------------------------------------------------------

/// An encoded object with a copy of its bytes. Any non-zero result means that there is no object.
class CDer {
 public:
  CDer() = default;
  virtual ~CDer();
  CDer(const CDer&) = delete;
  CDer& operator=(const CDer&) = delete;

  /// Frees what the object holds. Always 0.
  virtual std::int32_t Clear();
  /// Takes a copy of `bytes`, which are not the object's own. After kDerOutOfMemory the lengths are
  /// set all the same.
  [[nodiscard]] virtual std::int32_t SetData(Bytes bytes);
  /// The parse of a kind of object; kDerNotSupported where a class has none.
  [[nodiscard]] virtual std::int32_t Decode();
  /// The bytes, owned by the object until it is cleared or set again. Always 0.
  virtual std::int32_t GetData(const std::uint8_t*& bytes, std::uint64_t& length) const;
  /// The bytes, owned by the object until it is cleared or set again.
  [[nodiscard]] Bytes GetData() const { return Data(); }

 protected:
  /// The object without what stands behind it; empty when there is none.
  [[nodiscard]] Bytes Data() const;
  /// All that was set, and what the references of derived classes point into.
  [[nodiscard]] Bytes WorkingCopy() const;
  /// Leaves out what stands behind the object; the working copy keeps it.
  void ShortenData(std::size_t length);

 private:
  // Nobody changes either copy, so both are one allocation seen with two lengths.
  std::unique_ptr<std::uint8_t[]> data_;
  std::size_t dataLength_ = 0;
  std::size_t workingLength_ = 0;
};

}  // namespace qixx::der
