// The functions around the certificate holder.
#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "der/certificate.h"
#include "der/names.h"
#include "runtime/text.h"
#include "runtime/trace.h"

namespace qixx::der {
namespace {

// GeneralName (RFC 5280, 4.2.1.6), context-specific tags.
constexpr std::uint8_t kTagOtherName = 0xA0;
constexpr std::uint8_t kTagRfc822Name = 0x81;

/// The bytes that a PEM or plain base64 text stands for, null when it stands for none.
std::unique_ptr<std::uint8_t[]> FromBase64(Bytes text, std::size_t& length) {
  std::unique_ptr<std::uint8_t[]> decoded(new (std::nothrow) std::uint8_t[text.size()]);
  if (decoded == nullptr) return nullptr;
  const int count = runtime::Base64Decode({decoded.get(), text.size()}, AsText(text));
  if (count <= 0) return nullptr;
  length = static_cast<std::size_t>(count);
  return decoded;
}

CertificatePtr LoadDer(Bytes bytes) {
  if (bytes[0] != kTagSequence) return nullptr;
  CertificatePtr holder(new (std::nothrow) CertificateHolder);
  if (holder == nullptr || holder->certificate.SetData(bytes) != kDerOk) return nullptr;
  return holder;
}

/// The e-mail attribute of the subject, up to its first comma. False when there is no attribute.
bool FindSubjectEmail(std::string_view subject, std::string& email) {
  if (!FindNameValue(subject, kEmailAttribute, email)) return false;
  email.resize(std::min(email.find(','), email.size()));
  return true;
}

/// The first alternative name of a kind, as an element without content when there is none.
DerElement FindAlternativeName(const CertificateHolder& holder, std::uint8_t tag) {
  Bytes rest = ContentOf(ContentOf(holder.certificate.FindExtension(kSubjectAlternativeName)));
  DerElement name;
  while (TakeElement(rest, name) == kDerOk) {
    if (name.Tag() == tag) return name;
  }
  return {};
}

/// OtherName ::= SEQUENCE { type, [0] EXPLICIT value }. The first other-name decides, whatever its
/// type; those behind it are not looked at.
Bytes FindUserPrincipalName(const CertificateHolder& holder) {
  const Bytes content = FindAlternativeName(holder, kTagOtherName).content;
  OidRecord type;
  if (ReadOid(content, type) != kDerOk || type.Text() != kUserPrincipalName) return {};
  return ContentOf(ContentOf(content.subspan(type.element.size())));
}

void CopyOut(std::string_view text, std::size_t limit, char* output) {
  const std::size_t length = std::min(text.size(), limit);
  std::memcpy(output, text.data(), length);
  output[length] = '\0';
}

void Empty(char* output, std::size_t size) {
  if (output != nullptr && size != 0) output[0] = '\0';
}

void CopySerialNumber(const CertificateHolder& holder, char* serial, std::size_t size) {
  const int length = runtime::HexEncode(GetSerialNumber(holder), {serial, size - 1});
  serial[length < 0 ? 0 : length] = '\0';
}

/// A validity time as the number YYYYMMDDhhmmss, 0 for what RFC 5280 (4.1.2.5) does not know.
std::uint64_t MomentOf(Bytes time) {
  constexpr std::size_t kUtcDigits = 12;
  constexpr std::size_t kGeneralizedDigits = 14;
  constexpr std::uint64_t kCentury = 1'00'00'00'00'00'00;
  const std::string_view text = AsText(ContentOf(time));
  if (text.size() == kGeneralizedDigits + 1) return runtime::ParseDecimal(text);
  if (text.size() != kUtcDigits + 1) return 0;
  const std::uint64_t moment = runtime::ParseDecimal(text);
  return moment + (moment < kCentury / 2 ? 20 * kCentury : 19 * kCentury);
}

}  // namespace

void CertificateHolder::SetKeyIdentifier(Bytes identifier) {
  if (identifier.size() > keyIdentifier.size()) return;
  std::copy(identifier.begin(), identifier.end(), keyIdentifier.begin());
  keyIdentifierLength = identifier.size();
}

void ReleaseCertificate(CertificateHolder* holder) {
  delete holder;
}

CertificatePtr LoadCertificate(Bytes bytes) {
  if (bytes.empty() || bytes.data() == nullptr) return nullptr;
  if (bytes[0] != '-' && bytes[0] != 'M') return LoadDer(bytes);
  std::size_t length = 0;
  const std::unique_ptr<std::uint8_t[]> decoded = FromBase64(bytes, length);
  return decoded == nullptr ? nullptr : LoadDer({decoded.get(), length});
}

std::string_view GetSubjectText(const CertificateHolder& holder) {
  return holder.certificate.SubjectText();
}

std::string_view GetIssuerText(const CertificateHolder& holder) {
  return holder.certificate.IssuerText();
}

Bytes GetSerialNumber(const CertificateHolder& holder) {
  return ContentOf(holder.certificate.SerialNumber());
}

bool GetExtension(const CertificateHolder& holder, std::string_view identifier, Bytes& value) {
  value = holder.certificate.FindExtension(identifier);
  return !value.empty();
}

std::optional<Bytes> GetExtension(const CertificateHolder& holder, std::string_view identifier) {
  const Bytes value = holder.certificate.FindExtension(identifier);
  return value.empty() ? std::nullopt : std::optional(value);
}

bool HasExtendedKeyUsage(const CertificateHolder& holder, std::string_view purpose) {
  Bytes rest = ContentOf(ContentOf(holder.certificate.FindExtension(kExtendedKeyUsage)));
  DerElement element;
  OidRecord identifier;
  while (TakeElement(rest, element) == kDerOk) {
    if (ReadOid(element.whole, identifier) == kDerOk && identifier.Text() == purpose) return true;
  }
  return false;
}

bool GetKeyUsageBits(const CDerCert& certificate, std::uint8_t& bits) {
  const Bytes extension = certificate.KeyUsage();
  if (extension.empty()) return false;
  // BIT STRING: the number of unused bits, then the bits.
  const Bytes content = ContentOf(ContentOf(extension));
  bits = content.size() < 2 ? std::uint8_t{0} : content.back();
  return true;
}

bool GetPrincipalName(const CertificateHolder& holder, bool emailWanted, std::string& name) try {
  name.clear();
  if (!emailWanted) {
    name = AsText(FindUserPrincipalName(holder));
  } else if (!FindSubjectEmail(GetSubjectText(holder), name)) {
    name = AsText(FindAlternativeName(holder, kTagRfc822Name).content);
  }
  return !name.empty();
} catch (const std::bad_alloc&) {
  return false;
}

std::optional<std::uint8_t> GetKeyUsageBits(const CDerCert& certificate) {
  std::uint8_t bits = 0;
  return GetKeyUsageBits(certificate, bits) ? std::optional(bits) : std::nullopt;
}

std::optional<std::string> GetPrincipalName(const CertificateHolder& holder, bool emailWanted) {
  std::string name;
  return GetPrincipalName(holder, emailWanted, name) ? std::optional(name) : std::nullopt;
}

std::optional<std::string> GetLogonName(const CertificateHolder& holder,
                                        bool smartCardLogonRequired, bool emailAllowed) {
  std::string name;
  const bool found = GetLogonName(holder, smartCardLogonRequired, emailAllowed, name);
  return found ? std::optional(name) : std::nullopt;
}

CertificateLogonValues GetLogonValues(const CertificateHolder& holder, bool smartCardLogonRequired,
                                      bool emailAllowed) {
  if (smartCardLogonRequired && !HasExtendedKeyUsage(holder, kSmartCardLogon)) return {};
  const Bytes number = GetSerialNumber(holder);
  std::string serial(2 * number.size(), '\0');
  static_cast<void>(runtime::HexEncode(number, serial));
  return {GetLogonName(holder, smartCardLogonRequired, emailAllowed).value_or(std::string()),
          std::string(GetSubjectText(holder)), std::move(serial)};
}

bool GetPrincipalName(const CertificateHolder& holder, char* output, std::size_t size,
                      bool emailWanted) {
  std::string name;
  static_cast<void>(GetPrincipalName(holder, emailWanted, name));
  CopyOut(name, size, output);
  return output[0] != '\0';
}

bool GetLogonName(const CertificateHolder& holder, bool smartCardLogonRequired, bool emailAllowed,
                  std::string& name) {
  name.clear();
  if (smartCardLogonRequired && !HasExtendedKeyUsage(holder, kSmartCardLogon)) return false;
  return GetPrincipalName(holder, false, name) ||
         (emailAllowed && GetPrincipalName(holder, true, name));
}

bool GetLogonValues(Bytes certificate, bool smartCardLogonRequired, bool emailAllowed, char* upn,
                    std::size_t upnSize, char* subject, std::size_t subjectSize, char* serial,
                    std::size_t serialSize) {
  upn[0] = '\0';
  Empty(subject, subjectSize);
  Empty(serial, serialSize);
  const CertificatePtr holder = LoadCertificate(certificate);
  if (holder == nullptr) return false;
  if (smartCardLogonRequired && !HasExtendedKeyUsage(*holder, kSmartCardLogon)) return false;

  const bool found = GetPrincipalName(*holder, upn, upnSize, false) ||
                     (emailAllowed && GetPrincipalName(*holder, upn, upnSize, true));
  if (subject != nullptr && subjectSize != 0) {
    CopyOut(GetSubjectText(*holder), subjectSize - 1, subject);
  }
  if (serial != nullptr && serialSize != 0) CopySerialNumber(*holder, serial, serialSize);
  return found;
}

bool MatchNames(const CDerCert& certificate, bool subjectByDefault, std::string_view filter) {
  return certificate.MatchNames(subjectByDefault, filter);
}

bool MatchCertificate(Bytes value, Bytes serialNumber, std::string_view issuerFilter,
                      std::string_view subjectFilter, Bytes keyUsage) {
  CDerCert certificate;
  if (certificate.SetData(value) != kDerOk) return true;
  if (!serialNumber.empty() && !SameBytes(serialNumber, certificate.SerialNumber())) return false;
  if (!keyUsage.empty() && !SameBytes(keyUsage, certificate.KeyUsage())) return false;
  return certificate.MatchNames(false, issuerFilter) && certificate.MatchNames(true, subjectFilter);
}

bool IsSameCertificate(const CertificateHolder& a, const CertificateHolder& b) {
  return a.certificate.Compare(b.certificate) == 0;
}

bool AreDuplicates(const CertificateHolder& a, const CertificateHolder& b) {
  if (a.superseded || b.superseded || a.slot != b.slot) return false;
  if (!a.certificate.HasSameIssuer(b.certificate)) return false;
  if (!a.certificate.HasSameSubject(b.certificate)) return false;
  if (!SameBytes(a.certificate.KeyUsage(), b.certificate.KeyUsage())) return false;
  runtime::TraceWrite("Certificate - Duplicate");
  return true;
}

bool RanksHigher(const CertificateHolder& a, const CertificateHolder& b) {
  const std::uint64_t endOfA = MomentOf(a.certificate.NotAfter());
  const std::uint64_t endOfB = MomentOf(b.certificate.NotAfter());
  if (endOfA != endOfB) return endOfA > endOfB;
  return MomentOf(a.certificate.NotBefore()) > MomentOf(b.certificate.NotBefore());
}

}  // namespace qixx::der
