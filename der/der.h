// Reading of DER (X.690), the ground that the certificate reader stands on.
//
// The readers work in place: what they hand out are views into the caller's bytes. Input may come
// from anywhere. Nothing behind it is ever read, nesting is bounded, and one pass over an element
// takes time linear in its size. DecodeLength traces a length that cannot be read, each time that
// it is asked; every other failure is the caller's to report. All functions may be called from any
// thread; an object belongs to one at a time.
//
//   Bytes rest = sequence.Content();
//   while (const std::optional<DerElement> element = TakeElement(rest)) {
//     Use(element->Tag(), element->Content());
//   }
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace qixx::der {

using Bytes = std::span<const std::uint8_t>;

enum class DerResult : std::int32_t {
  kOk = 0,
  kLeftOver = -1,  ///< bytes behind the last part of a certificate
  kWrongTag = -3,
  kBadLength = -4,      ///< length not readable, or input too short
  kTooSmall = -5,       ///< the result would be longer than allowed
  kNotSupported = -666  ///< not offered by the class
};

inline constexpr std::uint8_t kTagInteger = 0x02;
inline constexpr std::uint8_t kTagBitString = 0x03;
inline constexpr std::uint8_t kTagOctetString = 0x04;
inline constexpr std::uint8_t kTagOid = 0x06;
inline constexpr std::uint8_t kTagSequence = 0x30;

/// Indefinite lengths inside each other; no certificate comes near it.
inline constexpr int kMaxNesting = 32;

/// Characters of a dotted identifier.
inline constexpr std::size_t kMaxOidText = 63;

// --- elements ---------------------------------------------------------------------------------

struct DerLength {
  std::size_t header;   ///< bytes of tag and length
  std::size_t content;  ///< bytes that the content claims to have, at most 2 GiB - 1
};

/// Reads the header of the element at the start of `bytes`, whatever its tag. `bytes` goes on to
/// the end of the input. Nothing when the length is not readable, which is traced.
///
/// Two leniencies are intended, for cards whose certificates need them. Indefinite lengths (X.690
/// 8.1.3.6) are accepted; such a content counts its closing pair of zero bytes, and a nested
/// element without content ends it in place of the pair. And the length is held against all of
/// `bytes`, header included, so a content may claim up to a header's size more than there is.
[[nodiscard]] std::optional<DerLength> DecodeLength(Bytes bytes);

struct ParsedElement {
  Bytes content;              ///< what there is of the content
  std::size_t contentLength;  ///< what the content claims to have; may be more
  std::size_t headerLength;
};

/// Finds the content of the element at the start of `bytes` without looking at its tag. As lenient
/// as DecodeLength.
[[nodiscard]] std::optional<ParsedElement> ParseElement(Bytes bytes);

/// One element whose content lies inside the input as a whole.
struct DerElement {
  Bytes whole;  ///< with tag and length bytes
  std::size_t headerLength = 0;

  [[nodiscard]] Bytes Content() const { return whole.subspan(headerLength); }
  /// 0 for an element that was never read.
  [[nodiscard]] std::uint8_t Tag() const { return whole.empty() ? std::uint8_t{0} : whole[0]; }
};

/// Reads the first element of `bytes`. Nothing also for a content past the end of `bytes`.
[[nodiscard]] std::optional<DerElement> ReadElement(Bytes bytes);

/// Reads the first element of `rest` and moves `rest` behind it; on failure it stays. An empty
/// `rest` gives nothing without a trace line, so that a walk simply ends.
[[nodiscard]] std::optional<DerElement> TakeElement(Bytes& rest);

/// The content of the first element of `bytes`, empty when it has none, and when there is no
/// element.
[[nodiscard]] Bytes ContentOf(Bytes bytes);

[[nodiscard]] bool SameBytes(Bytes a, Bytes b);

// --- object identifiers -----------------------------------------------------------------------

struct Subidentifier {
  std::uint64_t value;
  std::size_t length;  ///< bytes that it took
};

/// Reads one base-128 number (X.690 8.19.2). Numbers over 64 bits lose their upper bits. Nothing
/// when `bytes` end before the number does.
[[nodiscard]] std::optional<Subidentifier> DecodeSubidentifier(Bytes bytes);

struct OidRecord {
  DerResult result;
  std::string text = {};
  Bytes element = {};  ///< the encoded identifier with tag and length

  /// Whether the text is that of the whole identifier.
  explicit operator bool() const { return result == DerResult::kOk; }
};

/// The object identifier at the start of `bytes` as dotted text. Subidentifiers are printed as
/// signed 32-bit numbers. kTooSmall when the text would be longer than `maxLength` (which is at
/// most kMaxOidText): the text then ends with the last number that fits. It is empty for kWrongTag
/// and kBadLength. An identifier without content is an empty text and kOk.
[[nodiscard]] OidRecord OidToText(Bytes bytes, std::size_t maxLength);
/// The same with the largest limit.
[[nodiscard]] inline OidRecord ReadOid(Bytes bytes) {
  return OidToText(bytes, kMaxOidText);
}

// --- objects ----------------------------------------------------------------------------------

/// An encoded object with a copy of its bytes. Any result but kOk means that there is no object.
class CDer {
 public:
  CDer() = default;
  virtual ~CDer() = default;
  CDer(const CDer&) = delete;
  CDer& operator=(const CDer&) = delete;

  /// Frees what the object holds.
  virtual void Clear();
  /// Takes a copy of `bytes`, which are not the object's own.
  [[nodiscard]] virtual DerResult SetData(Bytes bytes);
  /// The parse of a kind of object; kNotSupported where a class has none.
  [[nodiscard]] virtual DerResult Decode() { return DerResult::kNotSupported; }
  /// The object without what stands behind it, until it is cleared or set again; empty when there
  /// is none.
  [[nodiscard]] virtual Bytes GetData() const { return Bytes(data_).first(dataLength_); }

 protected:
  /// All that was set, and what the references of derived classes point into.
  [[nodiscard]] Bytes WorkingCopy() const { return data_; }
  /// Leaves out what stands behind the object; the working copy keeps it.
  void ShortenData(std::size_t length);

 private:
  // Nobody changes either copy, so both are one buffer seen with two lengths.
  std::vector<std::uint8_t> data_;
  std::size_t dataLength_ = 0;
};

}  // namespace qixx::der
