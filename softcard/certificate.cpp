#include "softcard/certificate.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>

namespace qixx::softcard {
namespace {

constexpr unsigned char kInteger = 0x02;
constexpr unsigned char kSequence = 0x30;
constexpr unsigned char kVersion = 0xA0;

struct Element {
  unsigned char tag = 0;
  std::string_view whole;
  std::string_view content;
};

unsigned char ByteAt(std::string_view text, std::size_t place) {
  return static_cast<unsigned char>(text[place]);
}

/// Takes one element of definite length off the front.
std::optional<Element> TakeElement(std::string_view& input) {
  constexpr std::size_t kMaxLengthBytes = 4;
  if (input.size() < 2) return {};
  std::size_t header = 2;
  std::size_t length = ByteAt(input, 1);
  if (length >= 0x80) {
    const std::size_t bytes = length - 0x80;
    if (bytes == 0 || bytes > kMaxLengthBytes || input.size() < header + bytes) return {};
    length = 0;
    for (std::size_t i = 0; i < bytes; ++i) length = length << 8 | ByteAt(input, header + i);
    header += bytes;
  }
  if (length > input.size() - header) return {};
  const Element element{ByteAt(input, 0), input.substr(0, header + length),
                        input.substr(header, length)};
  input.remove_prefix(header + length);
  return element;
}

/// The same for one that must have this tag; an empty element otherwise.
Element TakeTagged(std::string_view& input, unsigned char tag) {
  const std::optional<Element> element = TakeElement(input);
  return element && element->tag == tag ? *element : Element{};
}

std::optional<std::string> DecodeBase64(std::string_view text) {
  constexpr std::string_view kDigits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string bytes;
  std::uint32_t bits = 0;
  int held = 0;
  for (const char character : text) {
    if (character == ' ' || character == '\t' || character == '\r' || character == '\n') continue;
    if (character == '=') break;
    const std::size_t digit = kDigits.find(character);
    if (digit == std::string_view::npos) return {};
    bits = bits << 6 | static_cast<std::uint32_t>(digit);
    held += 6;
    if (held >= 8) {
      held -= 8;
      bytes.push_back(static_cast<char>(bits >> held & 0xFF));
    }
  }
  return bytes;
}

}  // namespace

CertificateFields CutCertificate(std::string_view certificate) {
  std::string_view body = TakeTagged(certificate, kSequence).content;
  std::string_view fields = TakeTagged(body, kSequence).content;
  if (!fields.empty() && ByteAt(fields, 0) == kVersion) (void)TakeElement(fields);
  const Element serialNumber = TakeTagged(fields, kInteger);
  (void)TakeTagged(fields, kSequence);  // the signature algorithm
  const Element issuer = TakeTagged(fields, kSequence);
  (void)TakeTagged(fields, kSequence);  // the validity
  const Element subject = TakeTagged(fields, kSequence);
  if (serialNumber.whole.empty() || issuer.whole.empty() || subject.whole.empty()) return {};
  return {serialNumber.whole, issuer.whole, subject.whole};
}

std::vector<std::string> CertificatesOfPem(std::string_view text) {
  constexpr std::string_view kBegin = "-----BEGIN CERTIFICATE-----";
  constexpr std::string_view kEnd = "-----END CERTIFICATE-----";
  std::vector<std::string> certificates;
  for (;;) {
    const std::size_t begin = text.find(kBegin);
    if (begin == std::string_view::npos) return certificates;
    text.remove_prefix(begin + kBegin.size());
    const std::size_t end = text.find(kEnd);
    if (end == std::string_view::npos) return certificates;
    std::optional<std::string> certificate = DecodeBase64(text.substr(0, end));
    if (certificate) certificates.push_back(std::move(*certificate));
    text.remove_prefix(end + kEnd.size());
  }
}

}  // namespace qixx::softcard
