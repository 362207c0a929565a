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

/// Where CR is the only line end, taking the CRs out on save would join all lines.
void UseLineFeeds(std::string& text) {
  if (text.find('\n') != std::string::npos) return;
  std::replace(text.begin(), text.end(), '\r', '\n');
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
    text = runtime::Utf16ToUtf8(runtime::AsBytes(text));
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

std::string OneLine(std::string_view text) {
  std::string line(runtime::UpToZero(text));
  std::replace_if(line.begin(), line.end(), IsLineBreak, ' ');
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
  std::transform(folded.begin(), folded.end(), folded.begin(), runtime::FoldCase);
  return folded;
}

}  // namespace qixx::config
