// Certificates by recipe, for what the openssl program will not make.
#pragma once

#include <cstdlib>
#include <string>
#include <string_view>

#include "der/certificate.h"
#include "der/logon_values.h"
#include "der/spare_encoder.h"
#include "runtime/text.h"

namespace qixx::testing {

inline der::Bytes BytesOf(std::string_view text) {
  return runtime::AsBytes(text);
}

inline std::string FromHex(std::string_view hex) {
  return std::string(runtime::AsText(runtime::HexDecode(hex)));
}

/// An element of definite length.
inline std::string Der(int tag, const std::string& content) {
  std::string header(1, static_cast<char>(tag));
  if (content.size() > 0x7F) header += '\x82', header += static_cast<char>(content.size() >> 8);
  return header + static_cast<char>(content.size()) + content;
}

/// An element of indefinite length.
inline std::string Open(int tag, const std::string& content) {
  return std::string(1, static_cast<char>(tag)) + '\x80' + content + std::string(2, '\0');
}

inline std::string Oid(std::string_view dotted) {
  const der::EncodedOid oid = der::EncodeOid(dotted, 64);
  if (oid.result != der::DerResult::kOk) std::abort();
  return {oid.element.begin(), oid.element.end()};
}

/// A relative name of one attribute.
inline std::string Part(std::string_view type, const std::string& value, int tag = 0x0C) {
  return Der(0x31, Der(0x30, Oid(type) + Der(tag, value)));
}

inline std::string Extension(std::string_view identifier, const std::string& value) {
  return Der(0x30, Oid(identifier) + Der(0x04, value));
}

inline std::string OtherName(std::string_view type, const std::string& value) {
  return Der(0xA0, Oid(type) + Der(0xA0, Der(0x0C, value)));
}

struct Recipe {
  std::string serial = "\x2A";
  std::string issuer = Part("o", "Tessaly") + Part("cn", "Card CA");
  std::string notBefore = Der(0x17, "200101000000Z");
  std::string notAfter = Der(0x17, "491231235959Z");
  std::string subject = Part("o", "Example, Inc.") + Part("cn", "Ann Lee");
  std::string alternativeNames = OtherName(der::kUserPrincipalName, "ann@example.org");
  std::string extensions = Extension(der::kKeyUsage, FromHex("03020780")) +
                           Extension(der::kExtendedKeyUsage, Der(0x30, Oid(der::kSmartCardLogon)));
  std::string (*sequence)(int, const std::string&) = Der;  ///< the form of the inner sequences

  [[nodiscard]] std::string Info() const {
    const std::string algorithm = Der(0x30, Oid("1.2.840.10045.4.3.2"));
    const std::string names = Extension("2.5.29.17", Der(0x30, alternativeNames));
    return sequence(0x30, Der(0xA0, FromHex("020102")) + Der(0x02, serial) + algorithm +
                              sequence(0x30, issuer) + sequence(0x30, notBefore + notAfter) +
                              sequence(0x30, subject) + Der(0x30, algorithm + FromHex("03020000")) +
                              sequence(0xA3, sequence(0x30, extensions + names)));
  }
  [[nodiscard]] std::string Build(const std::string& behindSignature = "") const {
    return Der(0x30, Info() + Der(0x30, Oid("1.2.840.10045.4.3.2")) +
                         Der(0x03, std::string(9, '\0')) + behindSignature);
  }
};

/// The name that a certificate logs on with; empty when there is none.
inline std::string LogonName(const der::CertificatePtr& holder, bool required, bool emailAllowed) {
  if (holder == nullptr) return {};
  return der::GetLogonName(*holder, required, emailAllowed).value_or(std::string());
}

}  // namespace qixx::testing
