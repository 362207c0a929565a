// The DER reader: lengths, elements, object identifiers, and the way back.
#include <array>

#include "der/der.h"
#include "fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace qixx;
  Bytes rest(data, size);
  DerElement element;
  while (TakeElement(rest, element) == kDerOk) {
    Bytes inner = element.content;
    DerElement nested;
    while (TakeElement(inner, nested) == kDerOk) {
    }
  }
  std::size_t header = 0;
  static_cast<void>(DecodeLength({data, size}, header));
  OidRecord record;
  if (ReadOid({data, size}, record) == kDerOk) {
    std::array<std::uint8_t, kOidTextSize> encoded{};
    std::size_t length = 0;
    static_cast<void>(EncodeOid(record.Text(), encoded, length));
  }
  CDer object;
  static_cast<void>(object.SetData({data, size}));
  return 0;
}
