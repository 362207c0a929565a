#include "der/names.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>

#include "runtime/text.h"

namespace qixx::der {
namespace {

struct AttributeName {
  std::string_view shortName;
  std::string_view dotted;
};
constexpr std::array<AttributeName, 8> kAttributeNames = {{{"cn", "2.5.4.3"},
                                                           {"s", "2.5.4.4"},
                                                           {"serialNumber", "2.5.4.5"},
                                                           {"c", "2.5.4.6"},
                                                           {"o", "2.5.4.10"},
                                                           {"ou", "2.5.4.11"},
                                                           {"t", "2.5.4.12"},
                                                           {"g", "2.5.4.42"}}};

// String types. The bytes of those named first are ASCII or UTF-8.
constexpr std::uint8_t kTagUtf8String = 0x0C;
constexpr std::uint8_t kTagNumericString = 0x12;
constexpr std::uint8_t kTagPrintableString = 0x13;
constexpr std::uint8_t kTagIa5String = 0x16;
constexpr std::uint8_t kTagVisibleString = 0x1A;
constexpr std::uint8_t kTagT61String = 0x14;
constexpr std::uint8_t kTagUniversalString = 0x1C;
constexpr std::uint8_t kTagBmpString = 0x1E;

constexpr char32_t kReplacement = 0xFFFD;

constexpr char kEscape = '\\';

bool IsSeparator(char c) {
  return c == ',' || c == '+';
}
bool NeedsEscape(char c) {
  return IsSeparator(c) || c == kEscape;
}

// --- values as UTF-8 ---------------------------------------------------------------------------

/// Each byte that begins no character reads as U+FFFD.
std::string MendedUtf8(std::string_view bytes) {
  if (std::ranges::all_of(bytes, runtime::IsAscii)) return std::string(bytes);
  std::string text;
  text.reserve(bytes.size());
  while (!bytes.empty()) {
    runtime::AppendUtf8(text, runtime::TakeUtf8(bytes).value_or(kReplacement));
  }
  return text;
}

/// From big-endian characters of `width` bytes; a last incomplete one is dropped.
std::string FixedWidthToUtf8(Bytes bytes, std::size_t width) {
  std::string text;
  text.reserve(bytes.size());
  for (; bytes.size() >= width; bytes = bytes.subspan(width)) {
    char32_t character = 0;
    for (const std::uint8_t byte : bytes.first(width)) character = character << 8 | byte;
    runtime::AppendUtf8(text, character);
  }
  return text;
}

/// The value of an attribute. A type that is no text reads as "#" and the hexadecimal of its
/// element (RFC 4514, 2.4).
std::string ValueText(const DerElement& value) {
  switch (value.Tag()) {
    case kTagUtf8String:
    case kTagNumericString:
    case kTagPrintableString:
    case kTagIa5String:
    case kTagVisibleString:
      return MendedUtf8(runtime::AsText(value.Content()));
    case kTagT61String:
      return FixedWidthToUtf8(value.Content(), 1);
    case kTagBmpString:
      return runtime::Utf16ToUtf8(value.Content(), std::endian::big);
    case kTagUniversalString:
      return FixedWidthToUtf8(value.Content(), 4);
    default:
      return "#" + runtime::HexEncode(value.whole);
  }
}

// --- encoded names -----------------------------------------------------------------------------

/// Hands the attributes of a name (SEQUENCE OF SET OF SEQUENCE { type, value }) to `visit` in the
/// order of their encoding, the type as dotted text, until it returns false. An attribute that
/// cannot be read is passed over.
template <typename Visitor>
void VisitAttributes(Bytes name, const Visitor& visit) {
  Bytes sets = ContentOf(name);
  while (const std::optional<DerElement> set = TakeElement(sets)) {
    Bytes attributes = set->Content();
    while (const std::optional<DerElement> attribute = TakeElement(attributes)) {
      const OidRecord type = ReadOid(attribute->Content());
      if (!type) continue;
      Bytes rest = attribute->Content().subspan(type.element.size());
      const std::optional<DerElement> value = TakeElement(rest);
      if (value && !visit(type.text, *value)) return;
    }
  }
}

void AppendComponent(std::string& text, std::string_view type, const DerElement& value) {
  const std::string_view shortName = ShortAttributeName(type);
  if (!text.empty()) text.push_back(',');
  text.append(shortName.empty() ? type : shortName).push_back('=');
  for (const char c : ValueText(value)) {
    if (NeedsEscape(c)) text.push_back(kEscape);
    text.push_back(c);
  }
}

bool IsType(std::string_view wanted, std::string_view dotted) {
  return wanted == dotted ||
         (!wanted.empty() && runtime::EqualsNoCase(wanted, ShortAttributeName(dotted)));
}

bool MatchItem(Bytes name, std::string_view text, std::string_view item) {
  const std::size_t equals = item.find('=');
  if (equals == std::string_view::npos) {
    return runtime::FindTextNoCase(text, item) != std::string_view::npos;
  }
  bool found = false;
  VisitAttributes(name, [&](std::string_view type, const DerElement& value) {
    found = IsType(item.substr(0, equals), type) &&
            runtime::EqualsNoCase(ValueText(value), item.substr(equals + 1));
    return !found;
  });
  return found;
}

// --- formatted names ---------------------------------------------------------------------------

/// Length up to the first separator that no '\' precedes.
std::size_t ValueLength(std::string_view text) {
  std::size_t at = 0;
  while (at < text.size() && !IsSeparator(text[at])) at += text[at] == kEscape ? 2U : 1U;
  return std::min(at, text.size());
}

/// The next component as it stands in the text, escapes included.
std::optional<NameComponent> TakeComponent(std::string_view& rest) {
  while (!rest.empty() && (rest[0] == ' ' || IsSeparator(rest[0]))) rest.remove_prefix(1);
  const std::size_t equals = rest.find_first_of("=,+");
  if (equals == std::string_view::npos || rest[equals] != '=') return std::nullopt;
  const std::string_view key = rest.substr(0, equals);
  rest.remove_prefix(equals + 1);
  const std::string_view value = rest.substr(0, ValueLength(rest));
  rest.remove_prefix(value.size());
  return NameComponent{std::string(key), std::string(value)};
}

std::string WithoutEscapes(std::string_view text) {
  std::string plain;
  plain.reserve(text.size());
  for (std::size_t at = 0; at < text.size(); ++at) {
    const bool escapes = text[at] == kEscape && at + 1 < text.size() && NeedsEscape(text[at + 1]);
    if (escapes) ++at;
    plain.push_back(text[at]);
  }
  return plain;
}

}  // namespace

std::string_view ShortAttributeName(std::string_view dotted) {
  const auto name = std::ranges::find(kAttributeNames, dotted, &AttributeName::dotted);
  return name != kAttributeNames.end() ? name->shortName : std::string_view{};
}

std::string_view DottedAttributeName(std::string_view shortName) {
  for (const AttributeName& name : kAttributeNames) {
    if (runtime::EqualsNoCase(name.shortName, shortName)) return name.dotted;
  }
  return {};
}

std::string FormatName(Bytes name, std::size_t maxLength) {
  std::string text;
  text.reserve(std::min(name.size(), maxLength));
  VisitAttributes(name, [&](std::string_view type, const DerElement& value) {
    const std::size_t before = text.size();
    AppendComponent(text, type, value);
    if (text.size() <= maxLength) return true;
    text.resize(before);
    return false;
  });
  return text;
}

std::optional<NameComponent> NextNameComponent(std::string_view& rest) {
  std::optional<NameComponent> component = TakeComponent(rest);
  if (!component) return std::nullopt;
  if (!rest.empty() && component->value.ends_with(' ')) component->value.pop_back();
  component->value = WithoutEscapes(component->value);
  return component;
}

std::optional<std::string> FindNameValue(std::string_view text, std::string_view key) {
  while (const std::optional<NameComponent> component = TakeComponent(text)) {
    if (component->key == key) return WithoutEscapes(component->value);
  }
  return std::nullopt;
}

bool MatchName(Bytes name, std::string_view text, std::string_view filter) {
  bool asked = false;
  while (!filter.empty()) {
    const std::size_t end = std::min(filter.find(';'), filter.size());
    const std::string_view item =
        runtime::DropTrailingBlanks(runtime::SkipBlanks(filter.substr(0, end)));
    filter.remove_prefix(std::min(end + 1, filter.size()));
    if (item.empty()) continue;
    if (MatchItem(name, text, item)) return true;
    asked = true;
  }
  return !asked;
}

}  // namespace qixx::der
