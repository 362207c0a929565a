#include "config/format.h"

#include <algorithm>

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
  auto written = text.begin();
  for (auto read = text.begin(); read != text.end();) {
    const bool isFeed = *read == '\n';
    const auto end =
        std::find_if(read, text.end(), [isFeed](char c) { return (c == '\n') != isFeed; });
    const auto length = static_cast<std::size_t>(end - read);
    written = std::copy_n(read, isFeed ? ShortenedRun(length) : length, written);
    read = end;
  }
  text.erase(written, text.end());
}

/// Where CR is the only line end, taking the CRs out on save would join all lines.
void UseLineFeeds(std::string& text) {
  if (text.find('\n') != std::string::npos) return;
  std::ranges::replace(text, '\r', '\n');
}

}  // namespace

void NormaliseLoaded(std::string& text) {
  text.erase(text.begin(), std::ranges::find_if(text, runtime::IsAscii));
  const std::size_t zero = text.find('\0');
  const bool ends =
      zero == std::string::npos || text.find_first_not_of('\0', zero) == std::string::npos;
  if (ends) {
    text.resize(std::min(zero, text.size()));
  } else {
    text = runtime::Utf16ToUtf8(runtime::AsBytes(text));
    ReplaceZeroBytes(text);
  }
  UseLineFeeds(text);
}

void NormaliseForSave(std::string& text) {
  UseLineFeeds(text);
  std::erase(text, '\r');
  ShortenEmptyLines(text);
}

void ReplaceZeroBytes(std::string& text) {
  std::ranges::replace(text, '\0', '.');
}

std::string OneLine(std::string_view text) {
  std::string line(runtime::UpToZero(text));
  std::ranges::replace_if(line, IsLineBreak, ' ');
  return line;
}

std::optional<std::string> EntryText(std::string_view head, std::string_view entry,
                                     std::string_view value) {
  const std::size_t fixed = head.size() + entry.size() + 2;
  if (fixed > kGrowthStep) return std::nullopt;
  std::string text;
  text.reserve(fixed + value.size());
  text.append(head).append(entry).append(1, '=');
  return text.append(OneLine(value.substr(0, kGrowthStep - fixed))).append(1, '\n');
}

std::string SectionHead(std::string_view section) {
  std::string head("\n[");
  return head.append(section).append("]\n");
}

std::string_view MissingLineEnd(std::string_view text, std::size_t position) {
  return position == 0 || text[position - 1] == '\n' ? "" : "\n";
}

std::string Folded(std::string_view text) {
  std::string folded(text);
  std::ranges::transform(folded, folded.begin(), runtime::FoldCase);
  return folded;
}

}  // namespace qixx::config
