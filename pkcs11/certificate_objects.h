// Reading the certificate objects of a token.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "der/certificate.h"
#include "pkcs11/session.h"

namespace qixx::pkcs11 {

inline constexpr std::size_t kMaxCertificateBytes = 16384;
inline constexpr std::size_t kMaxLabel = 255;

/// A certificate object as the library wrote it: fixed buffers, and how much of them was filled.
class CertificateObject {
 public:
  [[nodiscard]] CK_OBJECT_HANDLE Handle() const { return handle_; }
  [[nodiscard]] der::Bytes Value() const { return std::span(value_).first(valueLength_); }
  [[nodiscard]] der::Bytes KeyIdentifier() const {
    return std::span(keyIdentifier_).first(keyIdentifierLength_);
  }
  /// Up to its first zero byte.
  [[nodiscard]] std::string_view Label() const;

  /// Reads the object, the suite's own attribute only on request. False, and the object is to be
  /// passed over, unless every attribute can be read and fits.
  [[nodiscard]] bool Read(const Session& session, CK_OBJECT_HANDLE handle, bool withSuiteValue);

 private:
  CK_OBJECT_HANDLE handle_ = CK_INVALID_HANDLE;
  std::array<CK_BYTE, kMaxCertificateBytes> value_{};
  std::size_t valueLength_ = 0;
  std::array<char, kMaxLabel> label_{};
  std::size_t labelLength_ = 0;
  std::array<CK_BYTE, der::kMaxKeyIdentifier> keyIdentifier_{};
  std::size_t keyIdentifierLength_ = 0;
  CK_BBOOL modifiable_ = CK_FALSE;       // read and not interpreted
  std::array<CK_BYTE, 8> suiteValue_{};  // likewise
};

/// The X.509 certificates on a token, one after the other. The session must outlive this.
class CertificateReading {
 public:
  CertificateReading(const Session& session, bool withSuiteValue);

  /// Reads the next certificate; false at the end. An object that cannot be read in full is passed
  /// over: cards hold such objects, and the others still count.
  [[nodiscard]] bool Next(CertificateObject& object);

 private:
  const Session& session_;
  bool withSuiteValue_;
  int tried_ = 0;
  CK_OBJECT_CLASS class_ = CKO_CERTIFICATE;
  CK_CERTIFICATE_TYPE type_ = CKC_X_509;
  CK_BBOOL onToken_ = CK_TRUE;
  std::array<CK_ATTRIBUTE, 3> wanted_ = {{AttributeOf(CKA_CLASS, class_),
                                          AttributeOf(CKA_CERTIFICATE_TYPE, type_),
                                          AttributeOf(CKA_TOKEN, onToken_)}};
  ObjectSearch search_;
};

}  // namespace qixx::pkcs11
