// The objects on a card and the standard's rules for their attributes (PKCS#11 2.40, 4.1 to 4.6).
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "pkcs11/cryptoki.h"
#include "softcard/readers.h"

namespace qixx::softcard {

/// No more certificates than this are taken from one card.
inline constexpr std::size_t kCertificateLimit = 4096;
/// The file of the variables, and the same object given byte by byte; the second one wins.
inline constexpr const char* kVariablesFile = "variables";
inline constexpr const char* kRawVariablesFile = "variables.raw";

/// A template is the caller's array; both fields may be as wrong as a caller can make them.
struct Template {
  CK_ATTRIBUTE_PTR attributes;
  CK_ULONG count;

  [[nodiscard]] bool IsValid() const { return attributes != nullptr || count == 0; }
  [[nodiscard]] CK_ATTRIBUTE_PTR begin() const { return attributes; }
  [[nodiscard]] CK_ATTRIBUTE_PTR end() const { return attributes + count; }
};

struct Object {
  /// The file, with the place inside it and a hash of the value for a certificate: what stays the
  /// same while the object does.
  std::string source;
  std::map<CK_ATTRIBUTE_TYPE, std::string> attributes;
};

/// The objects of the card in the order of its files. `suite` tells whether certificates carry the
/// suite's own attribute, whose eight bytes are then their place on the card, counted from 0.
[[nodiscard]] std::vector<Object> ObjectsOf(const std::vector<CardFile>& files, bool suite);

/// The object that holds the token's variables in `value`.
[[nodiscard]] Object VariablesObject(std::string value, bool modifiable);

/// True when the object has every attribute of the template with the same bytes.
[[nodiscard]] bool Matches(const Object& object, const Template& wanted);

/// C_GetAttributeValue: answers each attribute by itself, whatever becomes of the others. A length
/// becomes all ones where no value is handed out; the result is that of the last such attribute.
[[nodiscard]] CK_RV ReadAttributes(const Object& object, const Template& wanted);

/// The value of the variables object for a text of "name=value" lines: a zero byte, then each name
/// and each value with a zero byte behind it.
[[nodiscard]] std::string EncodeVariables(std::string_view lines);
/// The way back, also from an empty value; nothing for a value that such lines cannot hold.
[[nodiscard]] std::optional<std::string> DecodeVariables(std::string_view value);

}  // namespace qixx::softcard
