// The DER reader: lengths, elements, object identifiers, and the way back.
#include <array>

#include "der/der.h"
#include "fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace qixx;
  der::Bytes rest(data, size);
  der::DerElement element;
  while (der::TakeElement(rest, element) == der::kDerOk) {
    der::Bytes inner = element.content;
    der::DerElement nested;
    while (der::TakeElement(inner, nested) == der::kDerOk) {
    }
  }
  std::size_t header = 0;
  static_cast<void>(der::DecodeLength({data, size}, header));
  der::OidRecord record;
  if (der::ReadOid({data, size}, record) == der::kDerOk) {
    std::array<std::uint8_t, der::kOidTextSize> encoded{};
    std::size_t length = 0;
    static_cast<void>(der::EncodeOid(record.Text(), encoded, length));
  }
  der::CDer object;
  static_cast<void>(object.SetData({data, size}));
  return 0;
}
