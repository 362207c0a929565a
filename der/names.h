// Distinguished names (RFC 5280, 4.1.2.4) as text: writing them, walking them, matching them.
//
// A name is written as `type=value` pairs in the order of their encoding, separated by ",". The
// type is a short name of the table below or else the dotted identifier. Values become UTF-8.
// ',', '+' and '\' inside a value are preceded by '\', so that no value can pose as a component.
// All functions may be called from any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "der/der.h"

namespace qixx::der {

/// The dotted identifier of the e-mail attribute; it has no short name.
inline constexpr std::string_view kEmailAttribute = "1.2.840.113549.1.9.1";

/// "cn" for "2.5.4.3" and so on; empty when the identifier has no short name.
[[nodiscard]] std::string_view ShortAttributeName(std::string_view dotted);
/// The way back, in any letter case; empty when there is none.
[[nodiscard]] std::string_view DottedAttributeName(std::string_view shortName);

/// The encoded name (its whole element) as text. A component that would make the text longer than
/// `maxLength` is left out with all that follow it; an attribute whose type cannot be read is
/// passed over. Values may hold any character, zero included.
[[nodiscard]] std::string FormatName(Bytes name, std::size_t maxLength);

struct NameComponent {
  std::string key;
  std::string value;  ///< of the attribute, without escapes
};

/// Takes the next component off a formatted name. Its value runs to the next unescaped ',' or '+'
/// and loses one blank that stands before it. Nothing at the end, and at a component without '='.
[[nodiscard]] std::optional<NameComponent> NextNameComponent(std::string_view& rest);

/// The value of the first component with this very key in a formatted name: without escapes, but as
/// it stands otherwise, blanks included.
[[nodiscard]] std::optional<std::string> FindNameValue(std::string_view text, std::string_view key);

/// Whether an encoded name (also given as formatted `text`) passes a filter: alternatives separated
/// by ';', the first that matches decides. "type=value" asks for an attribute of that short or
/// dotted type with that very value; anything else must occur in the text. Letter case (of ASCII
/// letters) is ignored, blanks around alternatives too. A filter that asks for nothing matches.
[[nodiscard]] bool MatchName(Bytes name, std::string_view text, std::string_view filter);

}  // namespace qixx::der
