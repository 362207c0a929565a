// Writing of DER (X.690): headers around a content, and object identifiers.
//
// Spare: asked of this layer by the suite's design, built, called by nothing in this
// program. All functions may be called from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "der/der.h"

namespace qixx::der {

/// Puts tag and length in front of `content`. kTooSmall, with a trace line and nothing changed,
/// when less than the longest header that an element of `maxSize` bytes may need is left up to
/// `maxSize`.
[[nodiscard]] DerResult WrapElement(std::uint8_t tag, std::vector<std::uint8_t>& content,
                                    std::size_t maxSize);

struct EncodedOid {
  DerResult result;
  std::vector<std::uint8_t> element;  ///< empty on failure
};

/// Encodes an object identifier from dotted text or from one of the short names of der/names.h.
/// kWrongTag for a name that is neither (traced unless it has a dot), kTooSmall when the element
/// would have more than `maxSize` bytes.
[[nodiscard]] EncodedOid EncodeOid(std::string_view name, std::size_t maxSize);

}  // namespace qixx::der
