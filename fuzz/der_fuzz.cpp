// The DER reader: lengths, elements, object identifiers, and the way back.
#include "der/der.h"

#include "der/spare_encoder.h"
#include "fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace qixx;
  der::Bytes rest(data, size);
  while (const std::optional<der::DerElement> element = der::TakeElement(rest)) {
    der::Bytes inner = element->Content();
    while (der::TakeElement(inner)) {
    }
  }
  static_cast<void>(der::ParseElement({data, size}));
  if (const der::OidRecord oid = der::ReadOid({data, size})) {
    static_cast<void>(der::EncodeOid(oid.text, size));
  }
  der::CDer object;
  static_cast<void>(object.SetData({data, size}));
  return 0;
}
