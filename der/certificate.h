// X.509 certificates (RFC 5280) as a card holds them, and the logon values inside them.
//
// Certificates are read, never verified: no signature and no chain is checked here, and each value
// is what the certificate says of itself. Views that are handed out live as long as the object that
// they were asked of. Nothing is thrown. All functions may be called from any thread; an object
// belongs to one at a time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "der/der.h"

namespace qixx::der {

inline constexpr std::size_t kMaxExtensions = 32;
inline constexpr std::size_t kMaxKeyIdentifier = 64;

inline constexpr std::string_view kKeyUsage = "2.5.29.15";
inline constexpr std::string_view kSubjectAlternativeName = "2.5.29.17";
inline constexpr std::string_view kExtendedKeyUsage = "2.5.29.37";
inline constexpr std::string_view kSmartCardLogon = "1.3.6.1.4.1.311.20.2.2";
inline constexpr std::string_view kUserPrincipalName = "1.3.6.1.4.1.311.20.2.3";

/// The two ends of the validity as they are encoded (RFC 5280, 4.1.2.5).
struct Validity {
  std::string notBefore;
  std::string notAfter;
};

/// A parsed certificate. References point into its own copy of the bytes.
class CDerCert : public CDer {
 public:
  CDerCert() = default;
  ~CDerCert() override;

  std::int32_t Clear() override;
  /// Parses a certificate. 0 on success. Intended and relied on: a value shorter than 4 bytes or
  /// not beginning with 0x30 is traced and then counts as a certificate without content.
  [[nodiscard]] std::int32_t SetData(Bytes bytes) override;

  /// 0 when both have the same encoding, else -1.
  [[nodiscard]] virtual std::int32_t Compare(const CDerCert& other) const;
  [[nodiscard]] virtual bool HasSameIssuer(const CDerCert& other) const;
  [[nodiscard]] virtual bool HasSameSubject(const CDerCert& other) const;
  /// Copies the two times as they are encoded, terminated; both empty when either does not fit or
  /// is missing.
  virtual void CopyValidity(std::span<char> notBefore, std::span<char> notAfter) const;
  /// Both empty when either is missing or longer than any time that the standard knows.
  [[nodiscard]] Validity GetValidity() const;
  /// The value of the first extension with this identifier: the octet string with tag and length.
  /// Empty when there is none.
  [[nodiscard]] virtual Bytes FindExtension(std::string_view identifier) const;
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
  [[nodiscard]] Bytes KeyUsage() const { return FindExtension(kKeyUsage); }

  /// The names as text (der/names.h); zero-terminated behind the view, which may hold zeros.
  [[nodiscard]] std::string_view IssuerText() const {
    return {TextStart(issuerText_), issuerLength_};
  }
  [[nodiscard]] std::string_view SubjectText() const {
    return {TextStart(subjectText_), subjectLength_};
  }

  [[nodiscard]] bool IsDecoded() const { return decoded_; }
  [[nodiscard]] bool IsSelfSigned() const { return selfSigned_; }
  /// As of the parse. Two oddities are intended: a not-after in GeneralizedTime never counts as
  /// expired, and one in UTCTime is compared without its century.
  [[nodiscard]] bool IsExpired() const { return expired_; }

 protected:
  // The decoders of the three parts, each given its whole element.
  [[nodiscard]] virtual std::int32_t DecodeInfo(Bytes element);
  [[nodiscard]] virtual std::int32_t DecodeSignatureAlgorithm(Bytes element);
  [[nodiscard]] virtual std::int32_t DecodeSignature(Bytes element);

  /// Writes a name element as text; returns the length.
  virtual std::size_t FormatNameText(Bytes name, std::span<char> text) const;

 private:
  struct Extension {
    OidRecord identifier;
    Bytes value;
  };

  [[nodiscard]] std::int32_t DecodeCertificate(Bytes bytes);
  [[nodiscard]] std::int32_t DecodeParts(Bytes content, std::size_t claimedLength);
  [[nodiscard]] std::int32_t DecodeValidity(Bytes content);
  [[nodiscard]] std::int32_t DecodeExtensions(Bytes wrapped);
  void AddExtension(Bytes content);
  [[nodiscard]] bool FormatNames(std::size_t size);
  void TakeTime();
  [[nodiscard]] bool HasPassed(Bytes time) const;

  static const char* TextStart(const std::unique_ptr<char[]>& text) {
    return text == nullptr ? "" : text.get();
  }

  Bytes notBefore_;
  Bytes notAfter_;
  Bytes issuer_;
  Bytes subject_;
  Bytes serialNumber_;
  std::array<Extension, kMaxExtensions> extensions_;  // the first extensionCount_ are filled
  std::size_t extensionCount_ = 0;
  std::unique_ptr<char[]> issuerText_;
  std::unique_ptr<char[]> subjectText_;
  std::size_t issuerLength_ = 0;
  std::size_t subjectLength_ = 0;
  bool decoded_ = false;
  bool selfSigned_ = false;
  bool expired_ = false;
  bool timeTaken_ = false;
  char now_[16] = {};  // UTC, YYYYMMDDhhmmss
};

/// A certificate with what a reader of cards notes about it.
struct CertificateHolder {
  CDerCert certificate;
  std::uint64_t slot = 0;     ///< first slot of the group, 0 for none
  std::uint64_t rawSlot = 0;  ///< the slot in which it was read
  /// Outranked by a duplicate: it stays in its list, and users of the list pass over it.
  bool superseded = false;
  std::array<std::uint8_t, kMaxKeyIdentifier> keyIdentifier{};
  std::size_t keyIdentifierLength = 0;

  /// A longer identifier than fits is not copied and leaves the old one in place.
  void SetKeyIdentifier(Bytes identifier);
};

/// Frees a holder; null is allowed.
void ReleaseCertificate(CertificateHolder* holder);

struct CertificateReleaser {
  void operator()(CertificateHolder* holder) const { ReleaseCertificate(holder); }
};
using CertificatePtr = std::unique_ptr<CertificateHolder, CertificateReleaser>;

/// Loads a certificate in DER, or in base64 with or without armour (first byte '-' or 'M'). Null
/// for anything else, for a failed parse and when memory runs out. A value of 1 to 3 bytes that
/// begins with 0x30 loads as an empty certificate.
[[nodiscard]] CertificatePtr LoadCertificate(Bytes bytes);

// --- questions about a certificate ------------------------------------------------------------

/// The names as text. What follows the view in memory is a terminator.
[[nodiscard]] std::string_view GetSubjectText(const CertificateHolder& holder);
[[nodiscard]] std::string_view GetIssuerText(const CertificateHolder& holder);

/// The content bytes of the serial number, a leading zero byte included; empty when there are none.
[[nodiscard]] Bytes GetSerialNumber(const CertificateHolder& holder);

/// The octet string, with tag and length, of the extension with this dotted identifier.
[[nodiscard]] bool GetExtension(const CertificateHolder& holder, std::string_view identifier,
                                Bytes& value);
[[nodiscard]] std::optional<Bytes> GetExtension(const CertificateHolder& holder,
                                                std::string_view identifier);
[[nodiscard]] bool HasExtendedKeyUsage(const CertificateHolder& holder, std::string_view purpose);

/// The last byte of the key-usage bits, 0 when they cannot be read. False without such an
/// extension.
[[nodiscard]] bool GetKeyUsageBits(const CDerCert& certificate, std::uint8_t& bits);
/// The same, nothing without such an extension.
[[nodiscard]] std::optional<std::uint8_t> GetKeyUsageBits(const CDerCert& certificate);

/// The user principal name, if it is what the first other-name of the subject alternative name
/// holds. With `emailWanted` the e-mail address instead: the subject's up to its first comma, or
/// for a subject without that attribute the first of the alternative names. The bytes are those of
/// the certificate, zero bytes included, so a caller that may not cut there takes this form. False
/// when there is none.
[[nodiscard]] bool GetPrincipalName(const CertificateHolder& holder, bool emailWanted,
                                    std::string& name);
/// The same, cut to `size` characters and terminated behind them: `output` has room for size + 1.
/// False also when `output` is empty as a text, for a size of 0 or a zero byte in front.
[[nodiscard]] bool GetPrincipalName(const CertificateHolder& holder, char* output, std::size_t size,
                                    bool emailWanted);

/// The same, never an empty one.
[[nodiscard]] std::optional<std::string> GetPrincipalName(const CertificateHolder& holder,
                                                          bool emailWanted);

/// The name to log on with: the principal name, or when there is none and `emailAllowed` the e-mail
/// address. With `smartCardLogonRequired` only from a certificate made for smart-card logon.
[[nodiscard]] bool GetLogonName(const CertificateHolder& holder, bool smartCardLogonRequired,
                                bool emailAllowed, std::string& name);
/// The same, never an empty one.
[[nodiscard]] std::optional<std::string> GetLogonName(const CertificateHolder& holder,
                                                      bool smartCardLogonRequired,
                                                      bool emailAllowed);

/// What a certificate says of its owner, with the bytes as they stand there.
struct CertificateLogonValues {
  std::string upn;      ///< the name to log on with; empty when there is none
  std::string subject;  ///< as text (der/names.h)
  std::string serial;   ///< upper-case hexadecimal of the content bytes
};

/// With `smartCardLogonRequired` all values of a certificate made for something else are empty.
[[nodiscard]] CertificateLogonValues GetLogonValues(const CertificateHolder& holder,
                                                    bool smartCardLogonRequired, bool emailAllowed);

/// Loads a certificate and takes its logon values; true when `upn` is not empty, but the subject
/// and the serial number are filled without a name to log on with too. All outputs are terminated.
/// `upn` has room for upnSize + 1 characters; the other two may be null. The subject is cut to its
/// area; a serial number (upper-case hexadecimal) that does not fit is left empty.
[[nodiscard]] bool GetLogonValues(Bytes certificate, bool smartCardLogonRequired, bool emailAllowed,
                                  char* upn, std::size_t upnSize, char* subject,
                                  std::size_t subjectSize, char* serial, std::size_t serialSize);

}  // namespace qixx::der

#include "der/matching.h"
