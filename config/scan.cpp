#include "config/scan.h"

#include <algorithm>

#include "runtime/text.h"

namespace qixx {
namespace {

constexpr std::string_view kBlockEnd = "/>";

TextLine LineAt(std::string_view text, std::size_t begin) {
  const std::size_t end = FindLineEnd(text, begin);
  return {text.substr(begin, std::min(end - begin, kMaximumLine)), begin, end};
}

bool IsLineStart(std::string_view text, std::size_t position) {
  const std::size_t start = BeforeBlanks(text, position);
  return start == 0 || IsLineBreak(text[start - 1]);
}

bool IsEntryOf(std::string_view line, std::string_view entry) {
  return line.size() > entry.size() && line[entry.size()] == '=' && StartsWithNoCase(line, entry) &&
         !IsComment(line);
}

/// The body of a block of that name, whose text runs from '<' to "/>"; false for another name.
bool MatchBlock(std::string_view block, std::string_view name, std::string_view& body) {
  block = SkipBlanks(block.substr(1, block.size() - 1 - kBlockEnd.size()));
  if (!StartsWithNoCase(block, name)) return false;
  block = SkipBlanks(block.substr(name.size()));
  if (!block.starts_with('=')) return false;
  body = block.substr(1);
  return true;
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

bool LineReader::Next(TextLine& line) {
  while (position_ < text_.size() && (text_[position_] == ' ' || IsLineBreak(text_[position_]))) {
    ++position_;
  }
  if (position_ >= text_.size()) return false;
  line = LineAt(text_, position_);
  position_ = line.end;
  return true;
}

std::size_t BlockEnds::Behind(std::size_t begin) {
  if (mark_ < begin) mark_ = begin;
  if (mark_ != kNoPosition) mark_ = text_.find(kBlockEnd, mark_);
  return mark_ == kNoPosition ? kNoPosition : mark_ + kBlockEnd.size();
}

bool MarkReader::Next(Mark& mark) {
  for (;;) {
    if (header_ < position_) header_ = text_.find('[', position_);
    if (block_ < position_) block_ = text_.find('<', position_);
    const std::size_t begin = std::min(header_, block_);
    if (begin == kNoPosition) return false;
    position_ = begin + 1;
    if (!IsLineStart(text_, begin)) continue;
    if (begin == header_) {
      mark = {false, LineAt(text_, begin)};
      position_ = mark.line.end;
      return true;
    }
    const std::size_t end = blocks_.Behind(begin);
    if (end == kNoPosition) continue;
    mark = {true, {{}, begin, end}};
    position_ = FindLineEnd(text_, end);
    return true;
  }
}

bool MarkReader::NextHeader(TextLine& header) {
  Mark mark;
  while (Next(mark)) {
    if (mark.block) continue;
    header = mark.line;
    return true;
  }
  return false;
}

std::string_view HeaderName(std::string_view line) {
  const std::size_t close = line.find(']');
  return close == kNoPosition ? std::string_view{} : line.substr(1, close - 1);
}

bool IsHeaderOf(std::string_view line, std::string_view section) {
  return line.size() >= section.size() + 2 && line.front() == '[' &&
         line[section.size() + 1] == ']' && StartsWithNoCase(line.substr(1), section);
}

bool IsExactHeaderOf(std::string_view line, std::string_view section) {
  return line.size() == section.size() + 2 && IsHeaderOf(line, section);
}

std::string_view EntryName(std::string_view line) {
  return line.substr(0, line.find('='));
}

std::string_view EntryValue(std::string_view line) {
  const std::size_t equals = line.find('=');
  return equals == kNoPosition ? std::string_view{} : DropTrailingBlanks(line.substr(equals + 1));
}

SectionSpan SpanOfSection(std::string_view text, const TextLine& header) {
  SectionSpan section{header, text.size(), 0};
  std::size_t last = header.end;
  LineReader lines(text, header.end);
  for (TextLine line; lines.Next(line); last = line.end) {
    if (!EndsSection(line.text)) continue;
    section.end = line.begin;
    break;
  }
  section.insertion = BehindLineEnd(text, last);
  return section;
}

TextRange CutOfSection(std::string_view text, const SectionSpan& section) {
  const std::size_t begin = section.header.begin;
  const bool behindFeed = begin > 0 && text[begin - 1] == '\n';
  const std::size_t end =
      section.end == text.size() ? section.end : BeforeBlanks(text, section.end) - 1;
  return {behindFeed ? begin - 1 : begin, end};
}

bool FindSection(std::string_view text, std::string_view name, SectionSpan& section) {
  MarkReader marks(text);
  for (TextLine header; marks.NextHeader(header);) {
    if (!IsHeaderOf(header.text, name)) continue;
    section = SpanOfSection(text, header);
    return true;
  }
  return false;
}

EntrySearch FindEntry(std::string_view text, std::string_view section, std::string_view entry) {
  MarkReader marks(text);
  TextLine line;
  do {
    if (!marks.NextHeader(line)) return {kConfigNoSection, {}, text.size(), text.size()};
  } while (!IsHeaderOf(line.text, section));

  std::size_t last = line.end;
  for (LineReader lines(text, line.end); lines.Next(line) && !EndsSection(line.text);) {
    if (IsEntryOf(line.text, entry)) {
      return {kConfigOk, EntryValue(line.text.substr(entry.size())), BeforeBlanks(text, line.begin),
              BehindLineEnd(text, line.end)};
    }
    last = line.end;
  }
  const std::size_t insertion = BehindLineEnd(text, last);
  return {kConfigNoEntry, {}, insertion, insertion};
}

bool EntryReader::Next(std::string_view& section, std::string_view& entry) {
  for (TextLine line; lines_.Next(line);) {
    const std::string_view text = line.text;
    if (inBlock_ || text.starts_with('<')) {
      inBlock_ = text.find('>') == kNoPosition;
    } else if (text.starts_with('[')) {
      section_ = HeaderName(text);
    } else if (!section_.empty() && !IsComment(text)) {
      section = section_;
      entry = EntryName(text);
      return true;
    }
  }
  return false;
}

bool FindBlock(std::string_view text, std::string_view name, BlockSpan& block) {
  MarkReader marks(text);
  for (Mark mark; marks.Next(mark);) {
    if (!mark.block) continue;
    const std::string_view whole = text.substr(mark.line.begin, mark.line.end - mark.line.begin);
    if (!MatchBlock(whole, name, block.body)) continue;
    block.begin = mark.line.begin;
    block.end = mark.line.end;
    return true;
  }
  return false;
}

}  // namespace qixx
