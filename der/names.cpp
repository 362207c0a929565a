#include "der/names.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>

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

constexpr std::uint8_t kTagT61String = 0x14;
constexpr std::uint8_t kTagUniversalString = 0x1C;
constexpr std::uint8_t kTagBmpString = 0x1E;
/// The string types whose bytes are ASCII or UTF-8: UTF8String, NumericString, PrintableString,
/// IA5String, VisibleString.
constexpr std::array<std::uint8_t, 5> kPlainStrings = {0x0C, 0x12, 0x13, 0x16, 0x1A};

constexpr char32_t kReplacement = 0xFFFD;
constexpr char32_t kLastCharacter = 0x10FFFF;
constexpr std::size_t kMaxUtf8 = 4;

constexpr char kEscape = '\\';

bool IsSeparator(char c) {
  return c == ',' || c == '+';
}
bool NeedsEscape(char c) {
  return IsSeparator(c) || c == kEscape;
}

bool IsHighSurrogate(char32_t c) {
  return c >= 0xD800 && c <= 0xDBFF;
}
bool IsLowSurrogate(char32_t c) {
  return c >= 0xDC00 && c <= 0xDFFF;
}

char32_t ValidCharacter(char32_t c) {
  return c > kLastCharacter || IsHighSurrogate(c) || IsLowSurrogate(c) ? kReplacement : c;
}

/// A character as UTF-8.
class Utf8Character {
 public:
  explicit Utf8Character(char32_t c) {
    if (c < 0x80) {
      Put(c);
    } else if (c < 0x800) {
      Put(0xC0 | c >> 6), Tail(c);
    } else if (c < 0x10000) {
      Put(0xE0 | c >> 12), Tail(c >> 6), Tail(c);
    } else {
      Put(0xF0 | c >> 18), Tail(c >> 12), Tail(c >> 6), Tail(c);
    }
  }
  [[nodiscard]] std::string_view Text() const { return {bytes_, length_}; }

 private:
  void Put(char32_t byte) { bytes_[length_++] = static_cast<char>(byte); }
  void Tail(char32_t bits) { Put(0x80 | (bits & 0x3F)); }

  char bytes_[kMaxUtf8];
  std::size_t length_ = 0;
};

/// The characters of a value one by one. Bytes that are no character of its type count as U+FFFD; a
/// type that is no text reads as "#" and the hexadecimal of its element (RFC 4514, 2.4).
class ValueReader {
 public:
  explicit ValueReader(const DerElement& value) : value_(value), rest_(value.content) {
    for (const std::uint8_t tag : kPlainStrings) plain_ = plain_ || tag == value.Tag();
  }

  bool Next(char32_t& c) {
    if (plain_) return NextUtf8(c);
    switch (value_.Tag()) {
      case kTagT61String:
        return NextWide(1, c);
      case kTagBmpString:
        return NextUtf16(c);
      case kTagUniversalString:
        return NextWide(4, c);
      default:
        return NextHex(c);
    }
  }

 private:
  /// The next big-endian unit; a last incomplete one is dropped.
  bool TakeUnit(std::size_t width, char32_t& unit) {
    if (rest_.size() < width) return false;
    unit = 0;
    for (const std::uint8_t byte : rest_.first(width)) unit = unit << 8 | byte;
    rest_ = rest_.subspan(width);
    return true;
  }

  bool NextWide(std::size_t width, char32_t& c) {
    if (!TakeUnit(width, c)) return false;
    c = ValidCharacter(c);
    return true;
  }

  bool NextUtf16(char32_t& c) {
    if (!TakeUnit(2, c)) return false;
    const Bytes behind = rest_;
    char32_t low = 0;
    if (IsHighSurrogate(c) && TakeUnit(2, low) && IsLowSurrogate(low)) {
      c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
    } else {
      rest_ = behind;
      c = ValidCharacter(c);
    }
    return true;
  }

  bool NextUtf8(char32_t& c) {
    if (!TakeUnit(1, c)) return false;
    if (c >= 0x80) c = FinishUtf8(c);
    return true;
  }

  /// Takes what follows a lead byte; a broken sequence costs its lead byte only.
  char32_t FinishUtf8(char32_t lead) {
    const std::size_t tails = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : 1;
    if (lead < 0xC2 || lead > 0xF4 || rest_.size() < tails) return kReplacement;
    char32_t c = lead & (0x3Fu >> tails);
    for (const std::uint8_t tail : rest_.first(tails)) {
      if ((tail & 0xC0) != 0x80) return kReplacement;
      c = c << 6 | (tail & 0x3F);
    }
    const bool isOverlong = (tails == 2 && c < 0x800) || (tails == 3 && c < 0x10000);
    if (isOverlong || ValidCharacter(c) != c) return kReplacement;
    rest_ = rest_.subspan(tails);
    return c;
  }

  bool NextHex(char32_t& c) {
    const std::size_t at = hexPosition_++;
    if (at == 0) {
      c = '#';
      return true;
    }
    const std::size_t nibble = at - 1;
    if (nibble / 2 >= value_.whole.size()) return false;
    const unsigned byte = value_.whole[nibble / 2];
    c = static_cast<char32_t>("0123456789ABCDEF"[nibble % 2 == 0 ? byte >> 4 : byte & 0x0F]);
    return true;
  }

  DerElement value_;
  Bytes rest_;
  bool plain_ = false;
  std::size_t hexPosition_ = 0;
};

struct Attribute {
  OidRecord type;
  DerElement value;
};

/// SEQUENCE { type, value }
bool ReadAttribute(Bytes content, Attribute& attribute) {
  if (ReadOid(content, attribute.type) != kDerOk) return false;
  Bytes rest = content.subspan(attribute.type.element.size());
  return TakeElement(rest, attribute.value) == kDerOk;
}

/// The attributes of a name in the order of their encoding: SEQUENCE OF SET OF SEQUENCE.
class AttributeWalk {
 public:
  explicit AttributeWalk(Bytes name) : sets_(ContentOf(name)) {}

  bool Next(Attribute& attribute) {
    DerElement pair;
    for (;;) {
      if (TakeElement(pairs_, pair) == kDerOk) {
        if (ReadAttribute(pair.content, attribute)) return true;
      } else if (!NextSet()) {
        return false;
      }
    }
  }

 private:
  bool NextSet() {
    DerElement set;
    if (TakeElement(sets_, set) != kDerOk) return false;
    pairs_ = set.content;
    return true;
  }

  Bytes sets_;
  Bytes pairs_;
};

/// Builds the terminated text of a name, component by component.
class NameWriter {
 public:
  explicit NameWriter(std::span<char> area) : area_(area) { Terminate(); }

  /// All of a component or nothing of it.
  bool Add(const Attribute& attribute) {
    const std::size_t before = used_;
    const std::string_view shortName = ShortAttributeName(attribute.type.Text());
    const bool fits = (before == 0 || Put(",")) &&
                      Put(shortName.empty() ? attribute.type.Text() : shortName) && Put("=") &&
                      PutValue(attribute.value);
    if (!fits) used_ = before;
    Terminate();
    return fits;
  }
  [[nodiscard]] std::size_t Length() const { return used_; }

 private:
  bool PutValue(const DerElement& value) {
    ValueReader reader(value);
    char32_t c = 0;
    while (reader.Next(c)) {
      if (c < 0x80 ? !PutAscii(static_cast<char>(c)) : !Put(Utf8Character(c).Text())) return false;
    }
    return true;
  }
  bool PutAscii(char c) { return (!NeedsEscape(c) || PutByte(kEscape)) && PutByte(c); }
  bool PutByte(char c) {
    if (area_.size() - used_ <= 1) return false;
    area_[used_++] = c;
    return true;
  }
  bool Put(std::string_view text) {
    if (area_.size() - used_ <= text.size()) return false;
    std::memcpy(area_.data() + used_, text.data(), text.size());
    used_ += text.size();
    return true;
  }
  void Terminate() {
    if (!area_.empty()) area_[used_] = '\0';
  }

  std::span<char> area_;
  std::size_t used_ = 0;
};

bool IsType(const Attribute& attribute, std::string_view type) {
  const std::string_view dotted = attribute.type.Text();
  return type == dotted ||
         (!type.empty() && runtime::EqualsNoCase(type, ShortAttributeName(dotted)));
}

bool HasValue(const Attribute& attribute, std::string_view expected) {
  ValueReader reader(attribute.value);
  char32_t c = 0;
  while (reader.Next(c)) {
    const Utf8Character character(c);
    if (!runtime::StartsWithNoCase(expected, character.Text())) return false;
    expected.remove_prefix(character.Text().size());
  }
  return expected.empty();
}

bool HasAttribute(Bytes name, std::string_view type, std::string_view value) {
  AttributeWalk walk(name);
  Attribute attribute;
  while (walk.Next(attribute)) {
    if (IsType(attribute, type) && HasValue(attribute, value)) return true;
  }
  return false;
}

bool MatchItem(Bytes name, std::string_view text, std::string_view item) {
  const std::size_t equals = item.find('=');
  if (equals == std::string_view::npos) {
    return runtime::FindTextNoCase(text, item) != std::string_view::npos;
  }
  return HasAttribute(name, item.substr(0, equals), item.substr(equals + 1));
}

/// Length up to the first separator that no '\' precedes.
std::size_t ValueLength(std::string_view text) {
  std::size_t at = 0;
  while (at < text.size() && !IsSeparator(text[at])) at += text[at] == kEscape ? 2 : 1;
  return at < text.size() ? at : text.size();
}

/// Takes a component off a formatted name as it stands, escapes included.
bool TakeComponent(std::string_view& rest, std::string_view& key, std::string_view& value) {
  while (!rest.empty() && (rest[0] == ' ' || IsSeparator(rest[0]))) rest.remove_prefix(1);
  const std::size_t equals = rest.find_first_of("=,+");
  if (equals == std::string_view::npos || rest[equals] != '=') return false;
  key = rest.substr(0, equals);
  rest.remove_prefix(equals + 1);
  value = rest.substr(0, ValueLength(rest));
  rest.remove_prefix(value.size());
  return true;
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
  for (const AttributeName& name : kAttributeNames) {
    if (name.dotted == dotted) return name.shortName;
  }
  return {};
}

std::string_view DottedAttributeName(std::string_view shortName) {
  for (const AttributeName& name : kAttributeNames) {
    if (runtime::EqualsNoCase(name.shortName, shortName)) return name.dotted;
  }
  return {};
}

std::size_t FormatName(Bytes name, std::span<char> text) {
  NameWriter writer(text);
  AttributeWalk walk(name);
  Attribute attribute;
  while (walk.Next(attribute) && writer.Add(attribute)) {
  }
  return writer.Length();
}

bool NextNameComponent(std::string_view& rest, std::string& key, std::string& value) try {
  std::string_view type;
  std::string_view encoded;
  if (!TakeComponent(rest, type, encoded)) return false;
  if (!rest.empty() && encoded.ends_with(' ')) encoded.remove_suffix(1);
  key = type;
  value = WithoutEscapes(encoded);
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

std::optional<NameComponent> NextNameComponent(std::string_view& rest) {
  NameComponent component;
  if (!NextNameComponent(rest, component.key, component.value)) return std::nullopt;
  return component;
}

bool FindNameValue(std::string_view text, std::string_view key, std::string& value) try {
  std::string_view type;
  std::string_view encoded;
  while (TakeComponent(text, type, encoded)) {
    if (type != key) continue;
    value = WithoutEscapes(encoded);
    return true;
  }
  return false;
} catch (const std::bad_alloc&) {
  return false;
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
