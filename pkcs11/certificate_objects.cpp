#include "pkcs11/certificate_objects.h"

#include <span>

#include "pkcs11/extended.h"
#include "pkcs11/wrapper.h"
#include "runtime/text.h"

namespace qixx::pkcs11 {
namespace {

/// More objects of a token are not looked at: a library may find the same one without end.
constexpr int kMaxObjectsPerSlot = 4096;

}  // namespace

std::string_view CertificateObject::Label() const {
  return runtime::TextOf(std::span(label_).first(labelLength_));
}

bool CertificateObject::Read(const Session& session, CK_OBJECT_HANDLE handle, bool withSuiteValue) {
  std::array<CK_ATTRIBUTE, 5> attributes = {{
      AttributeOf(CKA_VALUE, value_),
      AttributeOf(CKA_LABEL, label_),
      AttributeOf(CKA_ID, keyIdentifier_),
      AttributeOf(CKA_MODIFIABLE, modifiable_),
      AttributeOf(kSuiteAttribute, suiteValue_),
  }};
  const std::array<CK_ATTRIBUTE, 5> asked = attributes;
  const std::size_t count = withSuiteValue ? 5 : 4;
  if (Pkcs11().GetAttributeValue(session.Handle(), handle, attributes.data(), count) != CKR_OK) {
    return false;
  }
  for (std::size_t i = 0; i < count; ++i) {
    const CK_ULONG length = attributes[i].ulValueLen;
    // A certificate without the attribute that only the suite's own cards have is a certificate.
    if (attributes[i].type == kSuiteAttribute && length == CK_UNAVAILABLE_INFORMATION) continue;
    if (length > asked[i].ulValueLen) return false;
  }
  handle_ = handle;
  valueLength_ = attributes[0].ulValueLen;
  labelLength_ = attributes[1].ulValueLen;
  keyIdentifierLength_ = attributes[2].ulValueLen;
  return true;
}

CertificateReading::CertificateReading(const Session& session, bool withSuiteValue)
    : session_(session), withSuiteValue_(withSuiteValue), search_(session, wanted_) {}

bool CertificateReading::Next(CertificateObject& object) {
  while (tried_ < kMaxObjectsPerSlot) {
    ++tried_;
    const FoundObject found = search_.Next();
    // A search that failed is over, and its session soon too.
    if (found.result == SearchResult::kFailure) search_.Abandon();
    if (found.result != SearchResult::kObject) return false;
    if (object.Read(session_, found.object, withSuiteValue_)) return true;
  }
  return false;
}

}  // namespace qixx::pkcs11
