#include "watch/card_text.h"

#include <algorithm>
#include <cstddef>
#include <optional>

#include "config/migration.h"
#include "config/scan.h"
#include "runtime/text.h"
#include "watch/options.h"
#include "watch/placeholders.h"

namespace qixx::watch {
namespace {

constexpr char kHarmless = '_';
constexpr std::string_view kLineStarts = "[<;#";
/// What the reader of certificates puts in the place of a byte that is not UTF-8.
constexpr char32_t kReplacement = 0xFFFD;

// --- characters ---------------------------------------------------------------------------------

std::string CleanCharacters(std::string_view text) {
  std::string cleaned;
  cleaned.reserve(text.size());
  while (!text.empty()) {
    const std::string_view before = text;
    const std::optional<char32_t> character = runtime::TakeUtf8(text);
    if (!character || *character == kReplacement || Misleads(*character) || *character == '"' ||
        *character == '|') {
      cleaned.push_back(kHarmless);
    } else {
      cleaned.append(before.substr(0, before.size() - text.size()));
    }
  }
  return cleaned;
}

// --- words --------------------------------------------------------------------------------------

/// A placeholder in the text may come to nothing, so its '%' is no neighbour to rely on. The index
/// before the first wraps.
bool IsBreak(std::string_view text, std::size_t index) {
  return index >= text.size() || text[index] == ' ' || text[index] == '%';
}

/// What follows the value, as the next one, may complete a name that the value ends in.
bool BeginsPlaceholder(std::string_view text) {
  return std::ranges::any_of(kPlaceholderMarks, [text](std::string_view mark) {
    return runtime::StartsWithNoCase(text, mark) || runtime::StartsWithNoCase(mark, text);
  });
}

void CleanWords(std::string& text) {
  const std::string_view view(text);
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool harmful = (text[i] == '>' && IsBreak(view, i - 1) && IsBreak(view, i + 1)) ||
                         (text[i] == '%' && BeginsPlaceholder(view.substr(i))) ||
                         (text[i] == '-' && IsCommandOption(view, i));
    if (harmful) text[i] = kHarmless;
  }
}

// --- paths --------------------------------------------------------------------------------------

/// What stands around the value may complete its first and last component, and where no quotes hold
/// the value together those at a blank too.
void CleanPath(std::string& text) {
  for (std::size_t i = 2; i < text.size(); ++i) {
    if (text[i] == '/' && text[i - 1] == '.' && text[i - 2] == '.') text[i] = kHarmless;
  }
  for (std::size_t begin = 0, end = 0; begin < text.size(); begin = end + 1) {
    end = std::min(text.find_first_of("/ ", begin), text.size());
    if (std::string_view(text).substr(begin, end - begin) != "..") continue;
    text.replace(begin, end - begin, 1, kHarmless);
    end = begin + 1;
  }
  if (text == "." || text.ends_with("/.")) text.back() = kHarmless;
  if (text.starts_with("./")) text.front() = kHarmless;
}

// --- files --------------------------------------------------------------------------------------

void CleanMigrationMarks(std::string& text) {
  for (const std::string_view mark : {config::kOldSoftToken, config::kOldGeneral}) {
    for (std::size_t at = text.find(mark); at != std::string::npos; at = text.find(mark)) {
      text[at + mark.find(' ')] = kHarmless;
    }
  }
}

}  // namespace

bool IsCommandOption(std::string_view text, std::size_t place) {
  const std::string_view option = text.substr(place);
  return IsOptionPlace(text, place) &&
         std::ranges::any_of(kCommandOptions, [option](std::string_view name) {
           return runtime::StartsWithNoCase(option, name) &&
                  (option.size() == name.size() || option[name.size()] == ' ');
         });
}

bool Misleads(char32_t character) {
  const bool isControl = character < 0x20 || (character >= 0x7F && character < 0xA0);
  const bool turnsDirection = character == 0x061C || character == 0x200E || character == 0x200F ||
                              (character >= 0x202A && character <= 0x202E) ||
                              (character >= 0x2066 && character <= 0x2069);
  const bool endsLine = character == 0x2028 || character == 0x2029;
  return isControl || turnsDirection || endsLine;
}

std::string CleanCardText(std::string_view text) {
  std::string cleaned = CleanCharacters(text);
  CleanWords(cleaned);
  CleanPath(cleaned);
  CleanMigrationMarks(cleaned);
  return cleaned;
}

std::string CleanLineStart(std::string_view cleaned) {
  std::string value(cleaned);
  // A configuration that is read drops other bytes than those of ASCII in front of its first line.
  const auto first =
      std::ranges::find_if(value, [](char c) { return c != ' ' && runtime::IsAscii(c); });
  const std::string_view line(first, value.end());
  if (!line.empty() &&
      (kLineStarts.find(*first) != std::string_view::npos || line.starts_with("//"))) {
    *first = kHarmless;
  }
  return value;
}

Blocks BlocksOf(std::string_view text) {
  if (text.find('<') == std::string_view::npos) return Blocks::kNone;
  // UTF-16, whose lines are not read here; and what is dropped in front of the first line.
  if (text.find('\0') != std::string_view::npos) return Blocks::kAcrossLines;
  while (!runtime::IsAscii(text.front())) text.remove_prefix(1);
  config::LineReader lines(text);
  while (const std::optional<config::TextLine> line = lines.Next()) {
    const bool isOpen = line->text.find('>') == std::string_view::npos;
    if (line->text.starts_with('<') && isOpen) return Blocks::kAcrossLines;
  }
  return Blocks::kInLines;
}

std::string CleanBlockMarks(std::string_view cleaned, Blocks blocks) {
  std::string value(cleaned);
  if (blocks == Blocks::kNone || value.empty()) return value;
  const bool isAnyEnd = blocks == Blocks::kAcrossLines;
  for (std::size_t i = 0; i < value.size(); ++i) {
    const bool ends = value[i] == '>' && (isAnyEnd || i == 0 || value[i - 1] == '/');
    const bool begins = value[i] == '<' && value.find_first_not_of(' ') == i;
    if (ends || begins) value[i] = kHarmless;
  }
  if (value.ends_with('/')) value.back() = kHarmless;
  return value;
}

}  // namespace qixx::watch
