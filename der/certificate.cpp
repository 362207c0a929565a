#include "der/certificate.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "der/names.h"
#include "runtime/text.h"
#include "runtime/trace.h"

namespace qixx::der {
namespace {

constexpr std::size_t kShortestCertificate = 4;
constexpr std::uint8_t kTagVersion = 0xA0;
constexpr std::uint8_t kTagExtensions = 0xA3;

DerResult ExpectTag(Bytes element, std::uint8_t tag) {
  return element[0] == tag ? DerResult::kOk : DerResult::kWrongTag;
}

/// Takes the fields of a structure one after the other. Once one is missing or another than
/// expected, no more are taken.
class FieldReader {
 public:
  explicit FieldReader(Bytes content) : rest_(content) {}

  /// The next field, which must have the tag: its whole element, empty on failure.
  Bytes Take(std::uint8_t tag) {
    const Bytes field = TakeAny().whole;
    if (result_ == DerResult::kOk) result_ = ExpectTag(field, tag);
    return result_ == DerResult::kOk ? field : Bytes{};
  }
  /// The next field, whatever its tag.
  DerElement TakeAny() {
    if (result_ != DerResult::kOk) return {};
    const std::optional<DerElement> field = TakeElement(rest_);
    if (!field) result_ = DerResult::kBadLength;
    return field.value_or(DerElement{});
  }
  void SkipOptional(std::uint8_t tag) {
    if (!rest_.empty() && rest_[0] == tag) TakeAny();
  }
  /// Whether nothing is left, or nothing that can be taken.
  [[nodiscard]] bool IsAtEnd() const { return result_ != DerResult::kOk || rest_.empty(); }
  [[nodiscard]] DerResult Result() const { return result_; }

 private:
  Bytes rest_;
  DerResult result_ = DerResult::kOk;
};

/// The list of purposes of the extended key usage.
Bytes PurposesOf(const CDerCert& certificate) {
  return ContentOf(ContentOf(certificate.GetExtension(kExtendedKeyUsage)));
}

/// Takes the next purpose off the list; what is no identifier is passed over.
std::optional<std::string> TakePurpose(Bytes& rest) {
  while (const std::optional<DerElement> element = TakeElement(rest)) {
    if (OidRecord purpose = ReadOid(element->whole)) return std::move(purpose.text);
  }
  return std::nullopt;
}

/// The present as a UTCTime has it: YYMMDDhhmmss.
std::string UtcNow() {
  using namespace std::chrono;
  const auto now = floor<seconds>(system_clock::now());
  const auto midnight = floor<days>(now);
  const year_month_day date(midnight);
  const hh_mm_ss time(now - midnight);
  std::int64_t number = 100 + static_cast<int>(date.year()) % 100;
  for (const std::int64_t field :
       {std::int64_t{static_cast<unsigned>(date.month())},
        std::int64_t{static_cast<unsigned>(date.day())}, std::int64_t{time.hours().count()},
        std::int64_t{time.minutes().count()}, std::int64_t{time.seconds().count()}}) {
    number = number * 100 + field;
  }
  return std::to_string(number).substr(1);
}

/// Whether an element of the validity lies in the past.
bool HasPassed(Bytes time) {
  // UTCTime (RFC 5280, 4.1.2.5.1): two header bytes, YYMMDDhhmmss, 'Z'. A GeneralizedTime is longer
  // and so never passes.
  constexpr std::size_t kHeader = 2;
  constexpr std::size_t kDigits = 12;
  const std::string now = UtcNow();
  return time.size() == kHeader + kDigits + 1 && time[kHeader + kDigits] == 'Z' &&
         runtime::AsText(time.subspan(kHeader, kDigits)) < now;
}

CertificatePtr LoadDer(Bytes bytes) {
  if (bytes.empty() || bytes[0] != kTagSequence) return nullptr;
  auto holder = std::make_unique<CertificateHolder>();
  return holder->certificate.SetData(bytes) == DerResult::kOk ? std::move(holder) : nullptr;
}

bool AreDigits(std::string_view text) {
  return std::ranges::all_of(text, [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace

void CDerCert::Clear() {
  notBefore_ = notAfter_ = issuer_ = subject_ = serialNumber_ = {};
  extensions_.clear();
  issuerText_ = {};
  subjectText_ = {};
  expired_ = false;
  CDer::Clear();
}

DerResult CDerCert::SetData(Bytes bytes) {
  CDerCert::Clear();
  runtime::TraceDump("data.cer", bytes);
  if (bytes.size() >= kShortestCertificate && bytes[0] == kTagSequence) {
    const DerResult result = DecodeCertificate(bytes);
    if (result != DerResult::kOk) return result;
  } else {
    // Counts as a certificate without content: readers of such a value get empty answers.
    runtime::TraceWrite("DerCertificate - Bad certificate value");
  }
  const std::size_t maxLength = bytes.empty() ? 0 : bytes.size() - 1;
  issuerText_ = FormatName(issuer_, maxLength);
  subjectText_ = FormatName(subject_, maxLength);
  expired_ = HasPassed(notAfter_);
  return DerResult::kOk;
}

DerResult CDerCert::DecodeCertificate(Bytes bytes) {
  static_cast<void>(CDer::SetData(bytes));
  const Bytes copy = WorkingCopy();
  // The header is decoded twice, and one that cannot be read is traced twice. Both lines are to
  // stay.
  if (const std::optional<DerLength> length = DecodeLength(copy)) {
    ShortenData(length->header + length->content);
  }
  const std::optional<ParsedElement> outer = ParseElement(copy);
  if (!outer) {
    runtime::TraceWrite("DerCertificate - Failed to decode top sequence (%d bytes)",
                        static_cast<int>(copy.size()));
    return DerResult::kBadLength;
  }
  return DecodeParts(*outer);
}

DerResult CDerCert::DecodeParts(const ParsedElement& outer) {
  struct Part {
    const char* name;
    DerResult (CDerCert::*decode)(Bytes);
  };
  static constexpr Part kParts[] = {{"info", &CDerCert::DecodeInfo},
                                    {"signature algorithm", &CDerCert::DecodeSignatureAlgorithm},
                                    {"signature", &CDerCert::DecodeSignature}};
  std::size_t position = 0;
  std::optional<DerLength> length;
  for (const Part& part : kParts) {
    // A length may claim more than there is; only what is there goes to the decoder.
    const Bytes rest = outer.content.subspan(std::min(position, outer.content.size()));
    length = DecodeLength(rest);
    if (!length) {
      runtime::TraceWrite("DerCertificate - Failed to get %s", part.name);
      continue;
    }
    const std::size_t size = length->header + length->content;
    const DerResult result = (this->*part.decode)(rest.first(std::min(size, rest.size())));
    if (result != DerResult::kOk) return result;
    position += size;
  }
  if (!length) return DerResult::kBadLength;
  if (position >= outer.contentLength) return DerResult::kOk;
  runtime::TraceWrite("DerCertificate - %d bytes ignored at end",
                      static_cast<int>(outer.contentLength - position));
  return DerResult::kLeftOver;
}

// TBSCertificate (RFC 5280, 4.1.2): version, serial number, algorithm, issuer, validity, subject;
// of what follows (key, unique identifiers, extensions) the extensions only.
DerResult CDerCert::DecodeInfo(Bytes element) {
  const std::optional<DerElement> info = ReadElement(element);
  if (!info) return DerResult::kBadLength;
  FieldReader fields(info->Content());
  fields.SkipOptional(kTagVersion);
  serialNumber_ = fields.Take(kTagInteger);
  fields.Take(kTagSequence);  // signature algorithm
  issuer_ = fields.Take(kTagSequence);
  const Bytes times = fields.Take(kTagSequence);
  subject_ = fields.Take(kTagSequence);
  if (fields.Result() != DerResult::kOk) return fields.Result();

  FieldReader validity(ContentOf(times));
  notBefore_ = validity.TakeAny().whole;
  notAfter_ = validity.TakeAny().whole;
  DerResult result = validity.Result();
  while (result == DerResult::kOk && !fields.IsAtEnd()) {
    const DerElement field = fields.TakeAny();
    if (field.Tag() == kTagExtensions) result = DecodeExtensions(field.Content());
  }
  return result == DerResult::kOk ? fields.Result() : result;
}

DerResult CDerCert::DecodeSignatureAlgorithm(Bytes element) {
  return ExpectTag(element, kTagSequence);
}

DerResult CDerCert::DecodeSignature(Bytes element) {
  return ExpectTag(element, kTagBitString);
}

DerResult CDerCert::DecodeExtensions(Bytes wrapped) {
  extensions_.reserve(kMaxExtensions);
  FieldReader list(wrapped);
  FieldReader extensions(list.TakeAny().Content());
  while (list.Result() == DerResult::kOk && !extensions.IsAtEnd()) {
    AddExtension(extensions.TakeAny().Content());
  }
  return list.Result() == DerResult::kOk ? extensions.Result() : list.Result();
}

// SEQUENCE { identifier, critical BOOLEAN OPTIONAL, value OCTET STRING }. One whose identifier
// cannot be read, and those that the table has no room for, are passed over.
void CDerCert::AddExtension(Bytes content) {
  if (extensions_.size() == kMaxExtensions) return;
  OidRecord identifier = ReadOid(content);
  if (!identifier) return;
  Extension& extension = extensions_.emplace_back();
  extension.identifier = std::move(identifier.text);
  Bytes rest = content.subspan(identifier.element.size());
  while (const std::optional<DerElement> part = TakeElement(rest)) {
    if (part->Tag() == kTagOctetString) {
      extension.value = part->whole;
      return;
    }
  }
}

Validity CDerCert::GetValidity() const {
  const Bytes notBefore = ContentOf(notBefore_);
  const Bytes notAfter = ContentOf(notAfter_);
  for (const Bytes time : {notBefore, notAfter}) {
    if (time.empty() || time.size() > kMaxValidityTime) return {};
  }
  return {std::string(runtime::AsText(notBefore)), std::string(runtime::AsText(notAfter))};
}

Bytes CDerCert::GetExtension(std::string_view identifier) const {
  const auto found = std::ranges::find(extensions_, identifier, &Extension::identifier);
  return found != extensions_.end() ? found->value : Bytes{};
}

bool CDerCert::MatchNames(bool subjectByDefault, std::string_view filter) const {
  const bool bySubject = runtime::StartsWithNoCase(filter, "subject|");
  const bool byIssuer = runtime::StartsWithNoCase(filter, "issuer|");
  if (bySubject || byIssuer) filter.remove_prefix(filter.find('|') + 1);
  return bySubject || (subjectByDefault && !byIssuer) ? MatchName(subject_, subjectText_, filter)
                                                      : MatchName(issuer_, issuerText_, filter);
}

void CertificateHolder::SetKeyIdentifier(Bytes identifier) {
  if (identifier.size() > kMaxKeyIdentifier) return;
  keyIdentifier.assign(identifier.begin(), identifier.end());
}

CertificatePtr LoadCertificate(Bytes bytes) {
  if (bytes.empty() || bytes.data() == nullptr) return nullptr;
  if (bytes[0] != '-' && bytes[0] != 'M') return LoadDer(bytes);
  return LoadDer(runtime::Base64Decode(runtime::AsText(bytes)));
}

Bytes GetSerialNumber(const CDerCert& certificate) {
  return ContentOf(certificate.SerialNumber());
}

bool HasExtendedKeyUsage(const CDerCert& certificate, std::string_view purpose) {
  Bytes rest = PurposesOf(certificate);
  while (const std::optional<std::string> found = TakePurpose(rest)) {
    if (*found == purpose) return true;
  }
  return false;
}

std::vector<std::string> GetExtendedKeyUsages(const CDerCert& certificate) {
  std::vector<std::string> purposes;
  Bytes rest = PurposesOf(certificate);
  while (std::optional<std::string> purpose = TakePurpose(rest)) {
    if (!purpose->empty()) purposes.push_back(*std::move(purpose));
  }
  return purposes;
}

std::optional<std::uint8_t> GetKeyUsageBits(const CDerCert& certificate) {
  const Bytes extension = certificate.KeyUsage();
  if (extension.empty()) return std::nullopt;
  // BIT STRING: the number of unused bits, then the bits.
  const Bytes content = ContentOf(ContentOf(extension));
  return content.size() < 2 ? std::uint8_t{0} : content.back();
}

std::vector<unsigned> GetKeyUsages(const CDerCert& certificate) {
  constexpr std::size_t kMaxKeyUsageBytes = 2;
  std::vector<unsigned> usages;
  Bytes bits = ContentOf(ContentOf(certificate.KeyUsage()));
  if (bits.empty()) return usages;
  bits = bits.subspan(1, std::min(bits.size() - 1, kMaxKeyUsageBytes));
  for (unsigned bit = 0; bit < bits.size() * 8; ++bit) {
    if ((bits[bit / 8] & (0x80U >> (bit % 8))) != 0) usages.push_back(bit);
  }
  return usages;
}

std::string TimeText(std::string_view encoded) {
  constexpr std::size_t kDigits = 14;
  std::string digits(encoded.substr(0, encoded.find_last_not_of('Z') + 1));
  if (digits.size() + 1 != encoded.size() || !AreDigits(digits)) return std::string(encoded);
  if (digits.size() == kDigits - 2) digits.insert(0, digits[0] < '5' ? "20" : "19");
  if (digits.size() != kDigits) return std::string(encoded);
  for (const auto& [at, separator] :
       {std::pair{12, ':'}, {10, ':'}, {8, 'T'}, {6, '-'}, {4, '-'}}) {
    digits.insert(static_cast<std::size_t>(at), 1, separator);
  }
  return digits + 'Z';
}

}  // namespace qixx::der
