// The attributes by which the data object with a token's variables is found and made.
#pragma once

#include <array>
#include <span>
#include <string>

#include "pkcs11/cryptoki.h"

namespace qixx::pkcs11 {

/// A longer value of the object is not read, whatever a library says.
inline constexpr CK_ULONG kMaxStoredBytes = 1 << 20;

/// The attributes of the object for public or for private variables. They point into this.
class VariableTemplate {
 public:
  explicit VariableTemplate(bool isPrivate);
  VariableTemplate(const VariableTemplate&) = delete;
  VariableTemplate& operator=(const VariableTemplate&) = delete;

  /// Five attributes: class, token, privacy, the suite's name as application, an empty label.
  [[nodiscard]] std::span<CK_ATTRIBUTE> ToFind() { return std::span(attributes_).first(5); }
  /// The same with a value, which is only read and must stay for as long as the attributes are
  /// used.
  [[nodiscard]] std::span<CK_ATTRIBUTE> ToCreate(std::span<const CK_BYTE> value);

 private:
  CK_OBJECT_CLASS class_ = CKO_DATA;
  CK_BBOOL onToken_ = CK_TRUE;
  CK_BBOOL isPrivate_;
  std::string application_;
  std::array<CK_ATTRIBUTE, 6> attributes_;
};

}  // namespace qixx::pkcs11
