#include "config/format.h"

#include <algorithm>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "config/scan.h"
#include "runtime/text.h"

namespace qixx::config {
namespace {

constexpr int kEmptyLinePasses = 10;

/// What is left of a run of line feeds after replacing three by two, over and over.
std::size_t ShortenedRun(std::size_t length) {
  for (int pass = 0; pass < kEmptyLinePasses; ++pass) length -= length / 3;
  return length;
}

void ShortenEmptyLines(std::string& text) {
  std::size_t read = text.find("\n\n\n");
  if (read == std::string::npos) return;
  std::size_t written = read;
  while (read < text.size()) {
    if (text[read] != '\n') {
      text[written++] = text[read++];
      continue;
    }
    const std::size_t end = std::min(text.find_first_not_of('\n', read), text.size());
    for (std::size_t feeds = ShortenedRun(end - read); feeds > 0; --feeds) text[written++] = '\n';
    read = end;
  }
  text.resize(written);
}

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
  TextLine header;
  for (bool more = marks.NextHeader(header); more;) {
    SortedSection& section =
        sections.emplace_back(BeginSection(text.substr(header.begin, header.end - header.begin)));
    const std::size_t begin = header.end;
    more = marks.NextHeader(header);
    LineReader lines(text.substr(0, more ? header.begin : text.size()), begin);
    for (TextLine line; lines.Next(line);) {
      section.text.append(text, line.begin, line.end - line.begin).append(1, '\n');
    }
    section.text += '\n';
  }
  return sections;
}

bool NameLess(const SortedSection& a, const SortedSection& b) {
  return runtime::CompareNoCase(a.name, b.name) < 0;
}

void ConvertFromUtf16(std::string& text) {
  std::string converted =
      runtime::Utf16ToUtf8({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
  // Two bytes or more always give some text, so this is the memory.
  if (converted.empty()) throw std::bad_alloc();
  text = std::move(converted);
}

/// Where CR is the only line end, taking the CRs out on save would join all lines.
void UseLineFeeds(std::string& text) {
  if (text.find('\n') != std::string::npos) return;
  std::replace(text.begin(), text.end(), '\r', '\n');
}

bool IsDroppedLine(std::string_view line) {
  return IsLineBreak(line.front()) || line.starts_with(';') || line.starts_with("//");
}

}  // namespace

void NormaliseLoaded(std::string& text) {
  const auto isPlain = [](char c) { return static_cast<unsigned char>(c) < 0x80; };
  text.erase(text.begin(), std::find_if(text.begin(), text.end(), isPlain));
  const std::size_t zero = text.find('\0');
  const bool ends =
      zero == std::string::npos || text.find_first_not_of('\0', zero) == std::string::npos;
  if (ends) {
    text.resize(std::min(zero, text.size()));
  } else {
    ConvertFromUtf16(text);
    ReplaceZeroBytes(text);
  }
  UseLineFeeds(text);
}

void NormaliseForSave(std::string& text) {
  UseLineFeeds(text);
  text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
  ShortenEmptyLines(text);
}

void ReplaceZeroBytes(std::string& text) {
  std::replace(text.begin(), text.end(), '\0', '.');
}

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
  TextRange block;
  bool hasBlock = marks.NextBlock(block);
  for (std::size_t begin = 0; begin < text.size();) {
    const bool dropped = IsDroppedLine(text.substr(begin));
    std::size_t end = FindLineEnd(text, begin);
    for (; hasBlock && block.begin < end; hasBlock = marks.NextBlock(block)) {
      end = FindLineEnd(text, block.end);
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

std::string OneLine(std::string_view text) {
  std::string line(text);
  std::replace_if(line.begin(), line.end(), IsLineBreak, ' ');
  return line;
}

std::string EntryText(std::string_view head, std::string_view entry, std::string_view value) {
  const std::size_t fixed = head.size() + entry.size() + 2;
  if (fixed > kGrowthStep) return {};
  std::string text;
  text.reserve(fixed + value.size());
  text.append(head).append(entry).append(1, '=');
  text.append(OneLine(value.substr(0, kGrowthStep - fixed))).append(1, '\n');
  return text;
}

std::string SectionHead(std::string_view section) {
  std::string head("\n[");
  return head.append(section).append("]\n");
}

std::string BlockText(std::string_view name, std::span<const std::uint8_t> data) {
  char* lines = nullptr;
  runtime::Base64EncodeLines(data, lines);
  const std::unique_ptr<char[]> encoded(lines);
  if (encoded == nullptr) return {};
  std::string text("\n<");
  text.append(OneLine(name)).append(" = \n").append(encoded.get()).append("/>");
  return text;
}

std::string Folded(std::string_view text) {
  std::string folded(text);
  std::transform(folded.begin(), folded.end(), folded.begin(), runtime::FoldCase);
  return folded;
}

}  // namespace qixx::config
