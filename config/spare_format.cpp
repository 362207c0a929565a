#include "config/spare_format.h"

#include <algorithm>
#include <vector>

#include "config/format.h"
#include "runtime/spare_text.h"
#include "runtime/text.h"

namespace qixx::config {
namespace {

constexpr std::string_view kBlockEnd = "/>";

struct SortedSection {
  std::string_view name;
  std::string text;
};

SortedSection BeginSection(std::string_view header) {
  const std::size_t close = header.rfind(']');
  SortedSection section;
  // A header without its ']' names no section, but the line is kept.
  section.name = header.substr(1, close == kNoPosition ? close : close - 1);
  section.text = header.substr(0, close == kNoPosition ? close : close + 1);
  section.text += '\n';
  return section;
}

std::vector<SortedSection> SplitSections(std::string_view text) {
  std::vector<SortedSection> sections;
  MarkReader marks(text);
  std::optional<TextLine> header = marks.NextHeader();
  while (header) {
    SortedSection& section = sections.emplace_back(
        BeginSection(text.substr(header->begin, header->end - header->begin)));
    const std::size_t begin = header->end;
    header = marks.NextHeader();
    LineReader lines(text.substr(0, header ? header->begin : text.size()), begin);
    while (const std::optional<TextLine> line = lines.Next()) {
      section.text.append(text, line->begin, line->end - line->begin).append(1, '\n');
    }
    section.text += '\n';
  }
  return sections;
}

bool NameLess(const SortedSection& a, const SortedSection& b) {
  return runtime::CompareNoCase(a.name, b.name) < 0;
}

bool IsDroppedLine(std::string_view line) {
  return IsLineBreak(line.front()) || line.starts_with(';') || line.starts_with("//");
}

}  // namespace

std::string SortSections(std::string_view text) {
  std::vector<SortedSection> sections = SplitSections(text);
  std::stable_sort(sections.begin(), sections.end(), NameLess);
  for (auto first = sections.begin(); first != sections.end();) {
    const auto last = std::upper_bound(first, sections.end(), *first, NameLess);
    first = std::rotate(first, first + 1, last) + 1;
  }
  std::string sorted;
  for (const SortedSection& section : sections) sorted += section.text;
  return sorted;
}

std::string StripCommentLines(std::string_view text) {
  std::string kept;
  MarkReader marks(text);
  std::optional<TextRange> block = marks.NextBlock();
  for (std::size_t begin = 0; begin < text.size();) {
    const bool dropped = IsDroppedLine(text.substr(begin));
    std::size_t end = FindLineEnd(text, begin);
    for (; block && block->begin < end; block = marks.NextBlock()) {
      if (block->end > end) end = FindLineEnd(text, block->end);
    }
    if (dropped) {
      end = std::min(text.find_first_not_of("\r\n", end), text.size());
    } else {
      end = BehindLineEnd(text, end);
      kept.append(text, begin, end - begin);
    }
    begin = end;
  }
  return kept;
}

std::optional<BlockSpan> FindBlock(std::string_view text, std::string_view name, std::size_t from) {
  if (name.empty()) return std::nullopt;
  while ((from = text.find('<', from)) != kNoPosition) {
    const std::size_t begin = from++;
    std::string_view body = runtime::SkipBlanks(text.substr(from));
    if (!runtime::StartsWithNoCase(body, name)) continue;
    body = runtime::SkipBlanks(body.substr(name.size()));
    if (!body.starts_with('=')) continue;
    body.remove_prefix(1);
    const std::size_t length = body.find(kBlockEnd);
    if (length == kNoPosition) return std::nullopt;
    const std::size_t end = text.size() - body.size() + length + kBlockEnd.size();
    return BlockSpan{{begin, end}, body.substr(0, length)};
  }
  return std::nullopt;
}

bool IsBlock(std::string_view text, TextRange range) {
  MarkReader marks(text);
  while (const std::optional<TextRange> block = marks.NextBlock()) {
    if (block->begin >= range.begin) return block->begin == range.begin && block->end == range.end;
  }
  return false;
}

std::string BlockText(std::string_view name, std::span<const std::uint8_t> data) {
  std::string text("\n<");
  return text.append(name).append(" = \n").append(runtime::Base64EncodeLines(data)).append("/>");
}

}  // namespace qixx::config
