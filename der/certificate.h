// X.509 certificates (RFC 5280) as a card holds them.
//
// Certificates are read, never verified: no signature and no chain is checked here, and each value
// is what the certificate says of itself. Views that are handed out live as long as the object that
// they were asked of. All functions may be called from any thread; an object belongs to one at a
// time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "der/der.h"

namespace qixx::der {

/// Further extensions of a certificate are passed over.
inline constexpr std::size_t kMaxExtensions = 32;
/// Bytes of a key identifier.
inline constexpr std::size_t kMaxKeyIdentifier = 64;
/// Characters of a validity time.
inline constexpr std::size_t kMaxValidityTime = 31;

inline constexpr std::string_view kKeyUsage = "2.5.29.15";
inline constexpr std::string_view kSubjectAlternativeName = "2.5.29.17";
inline constexpr std::string_view kExtendedKeyUsage = "2.5.29.37";

/// The two ends of the validity as they are encoded (RFC 5280, 4.1.2.5).
struct Validity {
  std::string notBefore;
  std::string notAfter;
};

/// A parsed certificate. References point into its own copy of the bytes.
class CDerCert : public CDer {
 public:
  CDerCert() = default;

  void Clear() override;
  /// Parses a certificate. Intended, for readers of cards that count such an object: a value
  /// shorter than 4 bytes or not beginning with 0x30 is traced and then is a certificate without
  /// content.
  [[nodiscard]] DerResult SetData(Bytes bytes) override;

  /// Whether both have the same encoding.
  [[nodiscard]] virtual bool IsSame(const CDerCert& other) const {
    return SameBytes(GetData(), other.GetData());
  }
  [[nodiscard]] virtual bool HasSameIssuer(const CDerCert& other) const {
    return SameBytes(issuer_, other.issuer_);
  }
  [[nodiscard]] virtual bool HasSameSubject(const CDerCert& other) const {
    return SameBytes(subject_, other.subject_);
  }
  /// Both empty when either is missing or longer than kMaxValidityTime.
  [[nodiscard]] virtual Validity GetValidity() const;
  /// The value of the first extension with this identifier: the octet string with tag and length.
  /// Empty when there is none.
  [[nodiscard]] virtual Bytes GetExtension(std::string_view identifier) const;
  /// A filter that begins with "subject|" or "issuer|" (in any letter case, blanks may follow)
  /// looks at that name; any other at the subject or the issuer as `subjectByDefault` says. The
  /// filter itself is that of MatchName in der/names.h; an empty one matches.
  [[nodiscard]] virtual bool MatchNames(bool subjectByDefault, std::string_view filter) const;

  // Elements with tag and length bytes, empty when the certificate has no content.
  [[nodiscard]] Bytes SerialNumber() const { return serialNumber_; }
  [[nodiscard]] Bytes Issuer() const { return issuer_; }
  [[nodiscard]] Bytes Subject() const { return subject_; }
  [[nodiscard]] Bytes NotBefore() const { return notBefore_; }
  [[nodiscard]] Bytes NotAfter() const { return notAfter_; }
  [[nodiscard]] Bytes KeyUsage() const { return GetExtension(kKeyUsage); }

  /// The names as text (der/names.h), each shorter than the value that was set.
  [[nodiscard]] std::string_view GetIssuerText() const { return issuerText_; }
  [[nodiscard]] std::string_view GetSubjectText() const { return subjectText_; }

  /// spare.
  [[nodiscard]] bool IsSelfSigned() const { return SameBytes(issuer_, subject_); }
  /// As of the parse. Two oddities are intended, since lists of cards are ordered by them: a
  /// not-after in GeneralizedTime never counts as expired, and one in UTCTime is compared without
  /// its century.
  [[nodiscard]] bool IsExpired() const { return expired_; }

 protected:
  // The decoders of the three parts, each given its whole element.
  [[nodiscard]] virtual DerResult DecodeInfo(Bytes element);
  [[nodiscard]] virtual DerResult DecodeSignatureAlgorithm(Bytes element);
  [[nodiscard]] virtual DerResult DecodeSignature(Bytes element);

 private:
  struct Extension {
    std::string identifier;  ///< dotted
    Bytes value;             ///< the octet string with tag and length; empty when there is none
  };

  [[nodiscard]] DerResult DecodeCertificate(Bytes bytes);
  [[nodiscard]] DerResult DecodeParts(const ParsedElement& outer);
  [[nodiscard]] DerResult DecodeExtensions(Bytes wrapped);
  void AddExtension(Bytes content);

  Bytes notBefore_;
  Bytes notAfter_;
  Bytes issuer_;
  Bytes subject_;
  Bytes serialNumber_;
  std::vector<Extension> extensions_;  // at most kMaxExtensions
  std::string issuerText_;
  std::string subjectText_;
  bool expired_ = false;
};

/// A certificate with what a reader of cards notes about it.
struct CertificateHolder {
  CDerCert certificate;
  std::uint64_t slot = 0;     ///< first slot of the group, 0 for none
  std::uint64_t rawSlot = 0;  ///< the slot in which it was read
  /// Outranked by a duplicate: it stays in its list, and users of the list pass over it.
  bool superseded = false;
  std::vector<std::uint8_t> keyIdentifier;  ///< at most kMaxKeyIdentifier bytes

  /// A longer identifier than that is not copied and leaves the old one in place.
  void SetKeyIdentifier(Bytes identifier);
};

using CertificatePtr = std::unique_ptr<CertificateHolder>;

/// Loads a certificate in DER, or in base64 with or without armour (first byte '-' or 'M'). Null
/// for anything else and for a failed parse. A value of 1 to 3 bytes that begins with 0x30 loads as
/// an empty certificate.
[[nodiscard]] CertificatePtr LoadCertificate(Bytes bytes);

// --- questions about a certificate ------------------------------------------------------------

/// The content bytes of the serial number, a leading zero byte included; empty when there are none.
[[nodiscard]] Bytes GetSerialNumber(const CDerCert& certificate);

[[nodiscard]] bool HasExtendedKeyUsage(const CDerCert& certificate, std::string_view purpose);
/// The purposes of the extended key usage, dotted, in their order; what is no identifier is left
/// out.
[[nodiscard]] std::vector<std::string> GetExtendedKeyUsages(const CDerCert& certificate);

/// The last byte of the key-usage bits, 0 when they cannot be read. Nothing without such an
/// extension.
[[nodiscard]] std::optional<std::uint8_t> GetKeyUsageBits(const CDerCert& certificate);
/// The numbers of the key-usage bits that are set (RFC 5280, 4.2.1.3: 0 is digitalSignature), of
/// the first sixteen.
[[nodiscard]] std::vector<unsigned> GetKeyUsages(const CDerCert& certificate);

/// A validity time in ISO 8601, "2049-12-31T23:59:59Z"; what is no such time as it stands.
[[nodiscard]] std::string TimeText(std::string_view encoded);

}  // namespace qixx::der
