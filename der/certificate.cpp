#include "der/certificate.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <new>

#include "der/names.h"
#include "runtime/text.h"
#include "runtime/trace.h"

namespace qixx::der {
namespace {

constexpr std::size_t kShortestCertificate = 4;
constexpr std::uint8_t kTagVersion = 0xA0;
constexpr std::uint8_t kTagExtensions = 0xA3;

constexpr std::string_view kSubjectSelector = "subject|";
constexpr std::string_view kIssuerSelector = "issuer|";

std::int32_t ExpectTag(Bytes element, std::uint8_t tag) {
  return element[0] == tag ? kDerOk : kDerWrongTag;
}

/// Takes the next element, which must have the tag, off `rest`.
std::int32_t TakeTagged(Bytes& rest, std::uint8_t tag, DerElement& element) {
  const std::int32_t result = TakeElement(rest, element);
  return result == kDerOk ? ExpectTag(element.whole, tag) : result;
}

/// False, and nothing copied, when there is no time or no room for it.
bool CopyTime(Bytes time, std::span<char> area) {
  const Bytes content = ContentOf(time);
  if (content.empty() || content.size() >= area.size()) return false;
  std::memcpy(area.data(), content.data(), content.size());
  area[content.size()] = '\0';
  return true;
}

}  // namespace

CDerCert::~CDerCert() = default;

std::int32_t CDerCert::Clear() {
  notBefore_ = notAfter_ = issuer_ = subject_ = serialNumber_ = {};
  extensionCount_ = 0;
  issuerText_.reset();
  subjectText_.reset();
  issuerLength_ = subjectLength_ = 0;
  decoded_ = selfSigned_ = expired_ = timeTaken_ = false;
  return CDer::Clear();
}

std::int32_t CDerCert::SetData(Bytes bytes) {
  CDerCert::Clear();
  runtime::TraceDump("data.cer", bytes);
  if (bytes.size() >= kShortestCertificate && bytes[0] == kTagSequence) {
    const std::int32_t result = DecodeCertificate(bytes);
    if (result != kDerOk) return result;
  } else {
    // Counts as a certificate without content: readers of such a value get empty answers.
    runtime::TraceWrite("DerCertificate - Bad certificate value");
  }
  decoded_ = true;
  selfSigned_ = SameBytes(issuer_, subject_);
  if (!FormatNames(bytes.size())) return kDerOutOfMemory;
  TakeTime();
  expired_ = HasPassed(notAfter_);
  return kDerOk;
}

std::int32_t CDerCert::DecodeCertificate(Bytes bytes) {
  std::int32_t result = CDer::SetData(bytes);
  if (result != kDerOk) {
    runtime::TraceWrite("DerCertificate - Generic decoding failed");
    return result;
  }
  const Bytes copy = WorkingCopy();
  std::size_t header = 0;
  const std::int32_t length = DecodeLength(copy, header);
  if (length >= 0) ShortenData(header + static_cast<std::size_t>(length));

  const std::uint8_t* content = nullptr;
  std::size_t claimed = 0;
  result = ParseElement(copy, content, claimed, &header);
  if (result != kDerOk) {
    runtime::TraceWrite("DerCertificate - Failed to decode top sequence (%d bytes)",
                        static_cast<int>(copy.size()));
    return result;
  }
  return DecodeParts(copy.subspan(header, std::min(claimed, copy.size() - header)), claimed);
}

std::int32_t CDerCert::DecodeParts(Bytes content, std::size_t claimedLength) {
  struct Part {
    const char* name;
    std::int32_t (CDerCert::*decode)(Bytes);
  };
  static constexpr Part kParts[] = {{"info", &CDerCert::DecodeInfo},
                                    {"signature algorithm", &CDerCert::DecodeSignatureAlgorithm},
                                    {"signature", &CDerCert::DecodeSignature}};
  std::size_t position = 0;
  std::int32_t length = 0;
  for (const Part& part : kParts) {
    // A length may claim more than there is; only what is there goes to the decoder.
    const Bytes rest = content.subspan(std::min(position, content.size()));
    std::size_t header = 0;
    length = DecodeLength(rest, header);
    if (length < 0) {
      runtime::TraceWrite("DerCertificate - Failed to get %s", part.name);
      continue;
    }
    const std::size_t size = header + static_cast<std::size_t>(length);
    const std::int32_t result = (this->*part.decode)(rest.first(std::min(size, rest.size())));
    if (result != kDerOk) {
      runtime::TraceWrite("DerCertificate - Failed to get %s", part.name);
      return result;
    }
    position += size;
  }
  if (length < 0) return length;
  if (position >= claimedLength) return kDerOk;
  runtime::TraceWrite("DerCertificate - %d bytes ignored at end",
                      static_cast<int>(claimedLength - position));
  return kDerLeftOver;
}

// TBSCertificate (RFC 5280, 4.1.2): version, serial number, algorithm, issuer, validity, subject;
// of what follows (key, unique identifiers, extensions) the extensions only.
std::int32_t CDerCert::DecodeInfo(Bytes element) {
  DerElement info;
  std::int32_t result = ReadElement(element, info);
  if (result != kDerOk) return result;

  Bytes rest = info.content;
  DerElement version;
  if (!rest.empty() && rest[0] == kTagVersion) result = TakeElement(rest, version);
  DerElement serialNumber, algorithm, issuer, validity, subject;
  struct Field {
    std::uint8_t tag;
    DerElement& element;
  };
  for (const Field& field :
       {Field{kTagInteger, serialNumber}, Field{kTagSequence, algorithm},
        Field{kTagSequence, issuer}, Field{kTagSequence, validity}, Field{kTagSequence, subject}}) {
    if (result == kDerOk) result = TakeTagged(rest, field.tag, field.element);
  }
  if (result != kDerOk) return result;
  serialNumber_ = serialNumber.whole;
  issuer_ = issuer.whole;
  subject_ = subject.whole;
  result = DecodeValidity(validity.content);

  DerElement next;
  while (result == kDerOk && !rest.empty()) {
    result = TakeElement(rest, next);
    if (result == kDerOk && next.Tag() == kTagExtensions) result = DecodeExtensions(next.content);
  }
  return result;
}

std::int32_t CDerCert::DecodeSignatureAlgorithm(Bytes element) {
  return ExpectTag(element, kTagSequence);
}

std::int32_t CDerCert::DecodeSignature(Bytes element) {
  return ExpectTag(element, kTagBitString);
}

std::int32_t CDerCert::DecodeValidity(Bytes content) {
  DerElement notBefore;
  DerElement notAfter;
  std::int32_t result = TakeElement(content, notBefore);
  if (result == kDerOk) result = TakeElement(content, notAfter);
  notBefore_ = notBefore.whole;
  notAfter_ = notAfter.whole;
  return result;
}

std::int32_t CDerCert::DecodeExtensions(Bytes wrapped) {
  DerElement list;
  std::int32_t result = TakeElement(wrapped, list);
  DerElement extension;
  for (Bytes rest = list.content; result == kDerOk && !rest.empty();) {
    result = TakeElement(rest, extension);
    if (result == kDerOk) AddExtension(extension.content);
  }
  return result;
}

// SEQUENCE { identifier, critical BOOLEAN OPTIONAL, value OCTET STRING }. One whose identifier
// cannot be read, and those that the table has no room for, are passed over.
void CDerCert::AddExtension(Bytes content) {
  if (extensionCount_ == extensions_.size()) return;
  Extension& extension = extensions_[extensionCount_];
  if (ReadOid(content, extension.identifier) != kDerOk) return;
  Bytes rest = content.subspan(extension.identifier.element.size());
  extension.value = {};
  DerElement part;
  while (extension.value.empty() && TakeElement(rest, part) == kDerOk) {
    if (part.Tag() == kTagOctetString) extension.value = part.whole;
  }
  ++extensionCount_;
}

bool CDerCert::FormatNames(std::size_t size) {
  if (size == 0) return true;
  issuerText_.reset(new (std::nothrow) char[size]);
  subjectText_.reset(new (std::nothrow) char[size]);
  if (issuerText_ == nullptr || subjectText_ == nullptr) {
    runtime::TraceWrite("Der - Out of memory");
    return false;
  }
  issuerLength_ = FormatNameText(issuer_, {issuerText_.get(), size});
  subjectLength_ = FormatNameText(subject_, {subjectText_.get(), size});
  return true;
}

std::size_t CDerCert::FormatNameText(Bytes name, std::span<char> text) const {
  return FormatName(name, text);
}

void CDerCert::TakeTime() {
  const std::time_t seconds = std::time(nullptr);
  std::tm utc{};
  if (::gmtime_r(&seconds, &utc) == nullptr) return;
  timeTaken_ = std::strftime(now_, sizeof now_, "%Y%m%d%H%M%S", &utc) != 0;
}

bool CDerCert::HasPassed(Bytes time) const {
  // UTCTime as RFC 5280 has it: two header bytes, YYMMDDhhmmss, 'Z'. The century of `now_` is left
  // out; a GeneralizedTime is longer and so never passes.
  constexpr std::size_t kHeader = 2;
  constexpr std::size_t kDigits = 12;
  if (!timeTaken_ || time.size() != kHeader + kDigits + 1 || time[kHeader + kDigits] != 'Z') {
    return false;
  }
  return AsText(time.subspan(kHeader, kDigits)) < std::string_view(now_ + 2, kDigits);
}

std::int32_t CDerCert::Compare(const CDerCert& other) const {
  return SameBytes(Data(), other.Data()) ? 0 : -1;
}

bool CDerCert::HasSameIssuer(const CDerCert& other) const {
  return SameBytes(issuer_, other.issuer_);
}

bool CDerCert::HasSameSubject(const CDerCert& other) const {
  return SameBytes(subject_, other.subject_);
}

void CDerCert::CopyValidity(std::span<char> notBefore, std::span<char> notAfter) const {
  if (CopyTime(notBefore_, notBefore) && CopyTime(notAfter_, notAfter)) return;
  for (const std::span<char> area : {notBefore, notAfter}) {
    if (!area.empty()) area[0] = '\0';
  }
}

Validity CDerCert::GetValidity() const {
  constexpr std::size_t kMaxTime = 31;
  const Bytes notBefore = ContentOf(notBefore_);
  const Bytes notAfter = ContentOf(notAfter_);
  for (const Bytes time : {notBefore, notAfter}) {
    if (time.empty() || time.size() > kMaxTime) return {};
  }
  return {std::string(AsText(notBefore)), std::string(AsText(notAfter))};
}

Bytes CDerCert::FindExtension(std::string_view identifier) const {
  const auto end = extensions_.begin() + static_cast<std::ptrdiff_t>(extensionCount_);
  const auto found = std::find_if(extensions_.begin(), end, [identifier](const Extension& e) {
    return e.identifier.Text() == identifier;
  });
  return found == end ? Bytes{} : found->value;
}

bool CDerCert::MatchNames(bool subjectByDefault, std::string_view filter) const {
  bool ofSubject = subjectByDefault;
  if (runtime::StartsWithNoCase(filter, kSubjectSelector)) {
    ofSubject = true;
    filter.remove_prefix(kSubjectSelector.size());
  } else if (runtime::StartsWithNoCase(filter, kIssuerSelector)) {
    ofSubject = false;
    filter.remove_prefix(kIssuerSelector.size());
  }
  return ofSubject ? MatchName(subject_, SubjectText(), filter)
                   : MatchName(issuer_, IssuerText(), filter);
}

}  // namespace qixx::der
