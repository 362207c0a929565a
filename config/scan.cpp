#include "config/scan.h"

#include <algorithm>

#include "runtime/text.h"

namespace qixx::config {
namespace {

constexpr std::string_view kBlockEnd = "/>";

TextLine LineIn(std::string_view text, TextRange range) {
  const std::size_t length = std::min(range.end - range.begin, kMaximumLine);
  return {text.substr(range.begin, length), range.begin, range.end};
}

bool IsEntryOf(std::string_view line, std::string_view entry) {
  return line.size() > entry.size() && line[entry.size()] == '=' &&
         runtime::StartsWithNoCase(line, entry) && !IsComment(line);
}

/// The body of a block of that name, whose text runs from '<' to "/>"; false for another name.
bool MatchBlock(std::string_view block, std::string_view name, std::string_view& body) {
  block = runtime::SkipBlanks(block.substr(1, block.size() - 1 - kBlockEnd.size()));
  if (!runtime::StartsWithNoCase(block, name)) return false;
  block = runtime::SkipBlanks(block.substr(name.size()));
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
  line = LineIn(text_, {position_, FindLineEnd(text_, position_)});
  position_ = line.end;
  return true;
}

bool MarkReader::Find(Mark wanted, TextRange& found) {
  for (;;) {
    if (bracket_ < position_) bracket_ = text_.find('[', position_);
    if (angle_ < position_) angle_ = text_.find('<', position_);
    const std::size_t begin = std::min(bracket_, angle_);
    if (begin == kNoPosition) return false;
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
    if (mark != wanted) continue;
    found = {begin, end};
    return true;
  }
}

/// Asked for growing positions; kNoPosition for a block that is never closed.
std::size_t MarkReader::BehindBlock(std::size_t begin) {
  if (terminator_ < begin) terminator_ = begin;
  if (terminator_ != kNoPosition) terminator_ = text_.find(kBlockEnd, terminator_);
  return terminator_ == kNoPosition ? kNoPosition : terminator_ + kBlockEnd.size();
}

bool MarkReader::NextHeader(TextLine& header) {
  TextRange range;
  if (!Find(Mark::kHeader, range)) return false;
  header = LineIn(text_, range);
  return true;
}

bool MarkReader::NextBlock(TextRange& block) {
  return Find(Mark::kBlock, block);
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

std::string_view EntryValue(std::string_view line) {
  const std::size_t equals = line.find('=');
  return equals == kNoPosition ? std::string_view{}
                               : runtime::DropTrailingBlanks(line.substr(equals + 1));
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

bool FindHeader(std::string_view text, std::string_view section, HeaderTest test,
                TextLine& header) {
  MarkReader marks(text);
  while (marks.NextHeader(header)) {
    if (test(header.text, section)) return true;
  }
  return false;
}

bool FindSection(std::string_view text, std::string_view name, SectionSpan& section) {
  TextLine header;
  if (!FindHeader(text, name, IsHeaderOf, header)) return false;
  section = SpanOfSection(text, header);
  return true;
}

EntrySearch FindEntry(std::string_view text, std::string_view section, std::string_view entry) {
  TextLine line;
  if (!FindHeader(text, section, IsHeaderOf, line)) {
    return {kConfigNoSection, {}, text.size(), text.size()};
  }
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

bool FindBlock(std::string_view text, std::string_view name, BlockSpan& block, std::size_t from) {
  MarkReader marks(text);
  while (marks.NextBlock(block.range)) {
    const auto [begin, end] = block.range;
    if (begin >= from && MatchBlock(text.substr(begin, end - begin), name, block.body)) return true;
  }
  return false;
}

}  // namespace qixx::config
