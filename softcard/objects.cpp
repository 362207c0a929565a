#include "softcard/objects.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

#include "pkcs11/extended.h"
#include "softcard/certificate.h"
#include "softcard/files.h"

namespace qixx::softcard {
namespace {

std::string BytesOf(CK_ULONG number) {
  return {reinterpret_cast<const char*>(&number), sizeof number};
}

std::string BytesOf(bool flag) {
  return std::string(1, static_cast<char>(flag ? CK_TRUE : CK_FALSE));
}

/// A short name for a value that stays the same from run to run (64-bit FNV-1a).
std::string IdentifierOf(std::string_view value) {
  std::uint64_t hash = 0xCBF29CE484222325;
  for (const char byte : value) {
    hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001B3;
  }
  std::string identifier;
  for (int shift = 56; shift >= 0; shift -= 8) {
    identifier.push_back(static_cast<char>(hash >> shift & 0xFF));
  }
  return identifier;
}

Object CommonObject(CK_OBJECT_CLASS kind, std::string label, std::string value, bool modifiable) {
  Object object;
  object.attributes = {{CKA_CLASS, BytesOf(kind)},    {CKA_TOKEN, BytesOf(true)},
                       {CKA_PRIVATE, BytesOf(false)}, {CKA_MODIFIABLE, BytesOf(modifiable)},
                       {CKA_LABEL, std::move(label)}, {CKA_VALUE, std::move(value)}};
  return object;
}

Object CertificateObject(const std::string& label, std::string value) {
  Object object = CommonObject(CKO_CERTIFICATE, label, std::move(value), false);
  const std::string& held = object.attributes[CKA_VALUE];
  const CertificateFields fields = CutCertificate(held);
  object.attributes[CKA_CERTIFICATE_TYPE] = BytesOf(CKC_X_509);
  object.attributes[CKA_ID] = IdentifierOf(held);
  object.attributes[CKA_SUBJECT] = fields.subject;
  object.attributes[CKA_ISSUER] = fields.issuer;
  object.attributes[CKA_SERIAL_NUMBER] = fields.serialNumber;
  return object;
}

/// The certificates in one file, by its extension.
std::vector<std::string> CertificatesOf(const CardFile& file) {
  if (file.name.ends_with(".der")) return {file.content};
  if (file.name.ends_with(".pem")) return CertificatesOfPem(file.content);
  return {};
}

CK_RV ReadAttribute(const Object& object, CK_ATTRIBUTE& wanted) {
  const auto held = object.attributes.find(wanted.type);
  const bool isHeld = held != object.attributes.end();
  const CK_ULONG length = isHeld ? held->second.size() : 0;
  const bool isLengthQuery = wanted.pValue == nullptr;
  if (!isHeld || (!isLengthQuery && wanted.ulValueLen < length)) {
    wanted.ulValueLen = CK_UNAVAILABLE_INFORMATION;
    return isHeld ? CKR_BUFFER_TOO_SMALL : CKR_ATTRIBUTE_TYPE_INVALID;
  }
  if (!isLengthQuery && length != 0) std::memcpy(wanted.pValue, held->second.data(), length);
  wanted.ulValueLen = length;
  return CKR_OK;
}

/// Takes the text before the next zero byte, and that byte; the last one may do without.
std::string_view TakeText(std::string_view& value) {
  const std::string_view text = value.substr(0, value.find('\0'));
  value.remove_prefix(std::min(text.size() + 1, value.size()));
  return text;
}

bool FitsInLine(std::string_view name, std::string_view value) {
  return name.front() != '#' && name.find_first_of("=\r\n") == std::string_view::npos &&
         value.find('\n') == std::string_view::npos && !value.ends_with('\r');
}

}  // namespace

std::vector<Object> ObjectsOf(const std::vector<CardFile>& files, bool suite) {
  std::vector<Object> objects;
  std::optional<Object> variables;
  for (const CardFile& file : files) {
    std::size_t place = 0;
    for (std::string& certificate : CertificatesOf(file)) {
      if (objects.size() == kCertificateLimit) break;
      Object object =
          CertificateObject(file.name.substr(0, file.name.rfind('.')), std::move(certificate));
      object.source = file.name + "/" + std::to_string(place++) + "/" + object.attributes[CKA_ID];
      if (suite) object.attributes[pkcs11::kSuiteAttribute] = BytesOf(CK_ULONG{objects.size()});
      objects.push_back(std::move(object));
    }
    if (file.name == kVariablesFile) {
      variables = VariablesObject(EncodeVariables(file.content), true);
    }
    if (file.name == kRawVariablesFile) variables = VariablesObject(file.content, false);
  }
  if (variables) objects.push_back(std::move(*variables));
  return objects;
}

Object VariablesObject(std::string value, bool modifiable) {
  Object object = CommonObject(CKO_DATA, "", std::move(value), modifiable);
  object.source = kVariablesFile;
  object.attributes[CKA_APPLICATION] = "Tessaly";
  object.attributes[CKA_OBJECT_ID] = "";
  return object;
}

bool Matches(const Object& object, const Template& wanted) {
  for (const CK_ATTRIBUTE& attribute : wanted) {
    const auto held = object.attributes.find(attribute.type);
    if (held == object.attributes.end() || held->second.size() != attribute.ulValueLen)
      return false;
    if (attribute.ulValueLen == 0) continue;
    if (attribute.pValue == nullptr ||
        std::memcmp(attribute.pValue, held->second.data(), attribute.ulValueLen) != 0) {
      return false;
    }
  }
  return true;
}

CK_RV ReadAttributes(const Object& object, const Template& wanted) {
  CK_RV result = CKR_OK;
  for (CK_ATTRIBUTE& attribute : wanted) {
    const CK_RV answer = ReadAttribute(object, attribute);
    if (answer != CKR_OK) result = answer;
  }
  return result;
}

std::string EncodeVariables(std::string_view lines) {
  std::string value(1, '\0');
  for (const Setting& variable : ReadSettings(lines)) {
    // A zero byte would shift all names and values behind it by one.
    if ((variable.name + variable.value).find('\0') != std::string::npos) continue;
    value.append(variable.name).push_back('\0');
    value.append(variable.value).push_back('\0');
  }
  return value;
}

std::optional<std::string> DecodeVariables(std::string_view value) {
  if (value.empty()) return std::string();
  if (value.front() != '\0') return {};
  value.remove_prefix(1);
  std::string lines;
  while (!value.empty() && value.front() != '\0') {
    const std::string_view name = TakeText(value);
    const std::string_view text = TakeText(value);
    if (!FitsInLine(name, text)) return {};
    lines.append(name).append("=").append(text).append("\n");
  }
  if (value.find_first_not_of('\0') != std::string_view::npos) return {};
  return lines;
}

}  // namespace qixx::softcard
