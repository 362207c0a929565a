#include "watch/command_text.h"

#include <algorithm>
#include <utility>

#include "runtime/process.h"
#include "runtime/text.h"
#include "watch/card_text.h"
#include "watch/command.h"

namespace qixx::watch {
namespace {

constexpr char kFromCard = '\0';
constexpr char kNoMark = ' ';
/// What may be more than text.
constexpr std::string_view kMarks = "\">-";
/// What a component of a path ends at, in a command.
constexpr std::string_view kComponentEnds = "/=, \"";
constexpr std::string_view kParentFolder = "..";

/// The marks of a text: a quote that begins or ends an argument, a '>' that is one, the '-' of an
/// option, and a component of a path that leads up.
std::string MarksOf(std::string_view text) {
  std::string marks(text.size(), kNoMark);
  const auto mark = [&](std::string_view token) {
    marks[static_cast<std::size_t>(token.data() - text.data())] = token[0];
  };
  std::string_view line = text;
  while (const std::optional<std::string_view> token = runtime::TakeToken(line)) {
    if (*token == ">" || token->front() == '"') mark(*token);
    if (token->front() == '"' && token->ends_with('"')) mark(token->substr(token->size() - 1));
  }
  for (std::size_t at = text.find('-'); at < text.size(); at = text.find('-', at + 1)) {
    if (IsCommandOption(text, at)) mark(text.substr(at));
  }
  for (std::size_t begin = 0, end = 0; begin < text.size(); begin = end + 1) {
    end = std::min(text.find_first_of(kComponentEnds, begin), text.size());
    if (text.substr(begin, end - begin) == kParentFolder) mark(text.substr(begin));
  }
  return marks;
}

/// Whether the card says where the name of a library that is called ends, or that of its function.
bool NamesCall(std::string_view text, std::string_view origin) {
  CommandParts parts = SplitCommand(EventKind::kInsert, text);
  while (parts.kind == CommandKind::kParallel) {
    parts = SplitCommand(EventKind::kInsert, parts.text);
  }
  if (parts.kind != CommandKind::kLoad && parts.kind != CommandKind::kExtern) return false;
  const auto isCards = [&origin](std::size_t at) {
    return at < origin.size() && origin[at] == kFromCard;
  };
  const std::size_t comma = text.find(',', text.size() - parts.text.size());
  const bool hasFunction = parts.kind == CommandKind::kLoad;
  return isCards(comma) || (hasFunction && isCards(text.find(' ', comma)));
}

/// As many marks for two texts that differ only in harmless values of a card.
CommandStructure StructureOf(std::string text, std::string_view origin) {
  CommandStructure structure;
  structure.redirects = runtime::RedirectsOutput(runtime::SplitArguments("", text));
  structure.namesCall = NamesCall(text, origin);
  for (std::size_t i = 0; i < text.size(); ++i) {
    // A placeholder that still stands there is a word: an option has to begin outside of words.
    if (origin[i] == '%') text[i] = 'x';
  }
  const std::string marks = MarksOf(text);
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (marks[i] != kNoMark || kMarks.find(origin[i]) != std::string_view::npos)
      structure.marks.push_back(marks[i]);
  }
  return structure;
}

/// A value with blanks may end a redirection, or an option, by what it is: a word more. It may not
/// bring one about, nor make other arguments of the quotes, lead out of a folder or name what is
/// called.
bool IsWithin(const CommandStructure& now, const CommandStructure& before) {
  const auto isAlike = [](char mark, char was) {
    return mark == was || (mark == kNoMark && was != '"');
  };
  return (before.redirects || !now.redirects) && !now.namesCall &&
         std::ranges::equal(now.marks, before.marks, isAlike);
}

}  // namespace

CommandText::CommandText(std::string text, std::size_t maxLength)
    : text_(std::move(text)),
      origin_(text_),
      maxLength_(maxLength),
      structure_(StructureOf(text_, origin_)) {}

void CommandText::Fill(std::string_view placeholder, std::string_view value) {
  std::size_t at = runtime::FindTextNoCase(text_, placeholder);
  while (at != std::string::npos &&
         text_.size() - placeholder.size() + value.size() <= maxLength_) {
    std::string text = text_;
    std::string origin = origin_;
    text.replace(at, placeholder.size(), value);
    origin.replace(at, placeholder.size(), value.size(), kFromCard);
    const bool isHarmless = IsWithin(StructureOf(text, origin), structure_);
    if (isHarmless) {
      text_ = std::move(text);
      origin_ = std::move(origin);
    }
    at =
        runtime::FindTextNoCase(text_, placeholder, at + (isHarmless ? value : placeholder).size());
  }
}

}  // namespace qixx::watch
