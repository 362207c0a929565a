#include "config/scan.h"

#include <algorithm>

#include "runtime/text.h"

namespace qixx::config {
namespace {

constexpr std::string_view kBlockEnd = "/>";

TextLine LineIn(std::string_view text, TextRange range) {
  const std::size_t length = std::min(range.end - range.begin, kMaxConfigLine);
  return {text.substr(range.begin, length), range.begin, range.end};
}

bool IsEntryOf(std::string_view line, std::string_view entry) {
  return line.size() > entry.size() && line[entry.size()] == '=' &&
         runtime::StartsWithNoCase(line, entry) && !IsComment(line);
}

/// Behind the last line of a section that is not empty; a line of blanks is not. `end` is where the
/// next header or block begins, or the end of the text.
std::size_t InsertionPoint(std::string_view text, std::size_t end) {
  if (end < text.size()) end = BeforeBlanks(text, end);
  while (end > 0 && IsLineBreak(text[end - 1])) --end;
  return BehindLineEnd(text, end);
}

}  // namespace

std::size_t FindLineEnd(std::string_view text, std::size_t from) {
  // In pieces, because a text that has only one of the two characters would be searched for the
  // other one to its end at every line.
  constexpr std::size_t kPiece = 512;
  for (; from < text.size(); from += kPiece) {
    const std::string_view piece = text.substr(from, kPiece);
    const std::size_t feed = piece.find('\n');
    const std::size_t end = std::min(feed, piece.substr(0, feed).find('\r'));
    if (end != kNoPosition) return from + end;
  }
  return text.size();
}

std::size_t BeforeBlanks(std::string_view text, std::size_t begin) {
  while (begin > 0 && text[begin - 1] == ' ') --begin;
  return begin;
}

std::size_t BehindLineEnd(std::string_view text, std::size_t end) {
  if (end < text.size() && text[end] == '\r') ++end;
  if (end < text.size() && text[end] == '\n') ++end;
  return end;
}

std::optional<TextLine> LineReader::Next() {
  while (position_ < text_.size() && (text_[position_] == ' ' || IsLineBreak(text_[position_]))) {
    ++position_;
  }
  if (position_ >= text_.size()) return std::nullopt;
  const TextRange line{position_, FindLineEnd(text_, position_)};
  position_ = line.end;
  return LineIn(text_, line);
}

std::optional<TextRange> MarkReader::Find(Mark wanted) {
  for (;;) {
    if (bracket_ < position_) bracket_ = text_.find('[', position_);
    // Only up to there: a text without blocks would be read to its end for each header.
    const std::size_t begin = std::min(bracket_, text_.substr(0, bracket_).find('<', position_));
    if (begin == kNoPosition) return std::nullopt;
    position_ = begin + 1;
    const Mark mark = begin == bracket_ ? Mark::kHeader : Mark::kBlock;
    const std::size_t start = BeforeBlanks(text_, begin);
    const bool startsLine = start == 0 || IsLineBreak(text_[start - 1]);
    const bool followsBlock = mark == Mark::kBlock && start == blockEnd_;
    if (!startsLine && !followsBlock) continue;
    const std::size_t end = mark == Mark::kHeader ? FindLineEnd(text_, begin) : BehindBlock(begin);
    if (end == kNoPosition) continue;
    position_ = end;
    if (mark == Mark::kBlock) blockEnd_ = end;
    if (mark == wanted) return TextRange{begin, end};
  }
}

/// Asked for growing positions; kNoPosition for a block that is never closed.
std::size_t MarkReader::BehindBlock(std::size_t begin) {
  if (terminator_ < begin) terminator_ = begin;
  if (terminator_ != kNoPosition) terminator_ = text_.find(kBlockEnd, terminator_);
  return terminator_ == kNoPosition ? kNoPosition : terminator_ + kBlockEnd.size();
}

std::optional<TextLine> MarkReader::NextHeader() {
  const std::optional<TextRange> header = Find(Mark::kHeader);
  if (!header) return std::nullopt;
  return LineIn(text_, *header);
}

std::optional<TextRange> MarkReader::NextBlock() {
  return Find(Mark::kBlock);
}

std::string_view HeaderName(std::string_view line) {
  const std::size_t close = line.find(']');
  return close == kNoPosition ? std::string_view{} : line.substr(1, close - 1);
}

bool IsHeaderOf(std::string_view line, std::string_view section) {
  return line.size() >= section.size() + 2 && line.front() == '[' &&
         line[section.size() + 1] == ']' && runtime::StartsWithNoCase(line.substr(1), section);
}

bool IsExactHeaderOf(std::string_view line, std::string_view section) {
  return line.size() == section.size() + 2 && IsHeaderOf(line, section);
}

bool IsEntryName(std::string_view name) {
  return !name.empty() && !name.starts_with(' ') && !IsComment(name) && !EndsSection(name);
}

std::string_view EntryName(std::string_view line) {
  return line.substr(0, line.find('='));
}

std::string CutName(std::string_view name) {
  return std::string(name.substr(0, runtime::kMaxText));
}

std::string_view EntryValue(std::string_view line) {
  const std::size_t equals = line.find('=');
  return equals == kNoPosition ? std::string_view{}
                               : runtime::DropTrailingBlanks(line.substr(equals + 1));
}

SectionSpan SpanOfSection(std::string_view text, const TextLine& header) {
  SectionSpan section{header, text.size(), 0};
  LineReader lines(text, header.end);
  while (const std::optional<TextLine> line = lines.Next()) {
    if (!EndsSection(line->text)) continue;
    section.end = line->begin;
    break;
  }
  section.insertion = InsertionPoint(text, section.end);
  return section;
}

LineReader LinesOf(std::string_view text, const SectionSpan& section) {
  return LineReader(text.substr(0, section.end), section.header.end);
}

TextRange FindCutOfSection(std::string_view text, std::string_view name) {
  TextRange cut;
  MarkReader marks(text);
  while (const std::optional<TextLine> header = marks.NextHeader()) {
    const bool behindFeed = header->begin > 0 && text[header->begin - 1] == '\n';
    if ((cut.end != 0 && !behindFeed) || !IsHeaderOf(header->text, name)) continue;
    const std::size_t end = SpanOfSection(text, *header).end;
    cut = {header->begin - (behindFeed ? 1 : 0),
           end == text.size() ? end : BeforeBlanks(text, end) - 1};
    if (behindFeed) break;
  }
  return cut;
}

std::optional<TextLine> FindHeader(std::string_view text, std::string_view section,
                                   HeaderTest test) {
  MarkReader marks(text);
  while (const std::optional<TextLine> header = marks.NextHeader()) {
    if (test(header->text, section)) return header;
  }
  return std::nullopt;
}

std::optional<SectionSpan> FindSection(std::string_view text, std::string_view name) {
  const std::optional<TextLine> header = FindHeader(text, name, IsHeaderOf);
  if (!header) return std::nullopt;
  return SpanOfSection(text, *header);
}

EntrySearch FindEntry(std::string_view text, std::string_view section,
                      std::optional<std::string_view> entry) {
  const std::optional<TextLine> header = FindHeader(text, section, IsHeaderOf);
  if (!header) return {ConfigResult::kNoSection, {}, text.size(), text.size()};
  LineReader lines(text, header->end);
  while (const std::optional<TextLine> line = entry ? lines.Next() : std::nullopt) {
    if (EndsSection(line->text)) break;
    if (IsEntryOf(line->text, *entry)) {
      return {ConfigResult::kOk, EntryValue(line->text.substr(entry->size())),
              BeforeBlanks(text, line->begin), BehindLineEnd(text, line->end)};
    }
  }
  const std::size_t insertion = SpanOfSection(text, *header).insertion;
  return {entry ? ConfigResult::kNoEntry : ConfigResult::kOk, {}, insertion, insertion};
}

std::optional<EntryReader::Names> EntryReader::Next() {
  while (const std::optional<TextLine> line = lines_.Next()) {
    const std::string_view text = line->text;
    if (inBlock_ || text.starts_with('<')) {
      inBlock_ = text.find('>') == kNoPosition;
    } else if (text.starts_with('[')) {
      section_ = HeaderName(text);
    } else if (!section_.empty() && !IsComment(text)) {
      return Names{section_, EntryName(text)};
    }
  }
  return std::nullopt;
}

}  // namespace qixx::config
