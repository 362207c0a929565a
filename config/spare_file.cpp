// Spare: asked of this layer by the suite's design, built, called by nothing in this
// program. Those operations of a configuration file that the watch service leaves alone.
#include <utility>

#include "config/file.h"
#include "config/format.h"
#include "config/spare_format.h"
#include "runtime/product.h"
#include "runtime/text.h"

namespace qixx::config {
namespace {

void Erase(std::string& text, TextRange range) {
  text.erase(range.begin, range.end - range.begin);
}

}  // namespace

bool CConfigFile::IsProductFile() const {
  const std::string_view prefix = runtime::Product().prefix;
  std::size_t slash = path_.rfind('/');
  if (slash == kNoPosition) slash = path_.rfind('\\');
  return !prefix.empty() && std::string_view(path_).substr(slash + 1).starts_with(prefix);
}

// --- reading ----------------------------------------------------------------------------------

std::optional<std::string_view> CConfigFile::ReadLine() {
  const std::optional<TextLine> line = LineReader(text_, position_).Next();
  position_ = line ? line->end : text_.size();
  if (!line) return std::nullopt;
  return line->text;
}

std::optional<std::vector<std::uint8_t>> CConfigFile::GetBlock(std::string_view name) {
  const std::optional<BlockSpan> block = FindBlock(text_, name);
  if (!block) return std::nullopt;
  std::vector<std::uint8_t> data = runtime::Base64Decode(block->body);
  if (data.empty()) return std::nullopt;
  return data;
}

std::optional<ConfigEntry> CConfigFile::EnumEntries(std::size_t& index) {
  const std::size_t wanted = index++;
  if (!entryCursor_ || nextEntry_ != wanted) {
    entryCursor_.emplace(text_);
    nextEntry_ = 0;
  }
  while (const std::optional<EntryReader::Names> names = entryCursor_->Next()) {
    if (nextEntry_++ == wanted) return ConfigEntry{CutName(names->section), CutName(names->entry)};
  }
  return std::nullopt;
}

std::optional<std::string> CConfigFile::EnumSectionEntries(std::string_view section,
                                                           std::size_t& index) {
  const std::size_t wanted = index++;
  Cursor& cursor = sectionCursor_;
  if (cursor.position == 0 || cursor.next != wanted ||
      !runtime::EqualsNoCase(cursor.section, section)) {
    const std::optional<TextLine> header = FindHeader(text_, section, IsExactHeaderOf);
    if (!header) return std::nullopt;
    cursor = {std::string(section), 0, header->end};
  }
  LineReader lines(text_, cursor.position);
  while (const std::optional<TextLine> line = lines.Next()) {
    if (EndsSection(line->text)) break;
    if (IsComment(line->text)) continue;
    cursor.position = line->end;
    if (cursor.next++ == wanted) return CutName(EntryName(line->text));
  }
  return std::nullopt;
}

std::optional<std::string> CConfigFile::EnumBlocks(std::size_t& index) {
  const std::size_t wanted = index++;
  Cursor& cursor = blockCursor_;
  if (cursor.next != wanted) cursor = {};
  for (;;) {
    const std::size_t begin = text_.find("\n<", cursor.position);
    if (begin == std::string::npos) return std::nullopt;
    cursor.position = begin + 2;
    if (cursor.next++ != wanted) continue;
    const std::string_view found =
        runtime::SkipBlanks(std::string_view(text_).substr(cursor.position));
    return CutName(found.substr(0, found.find_first_of("= \r\n")));
  }
}

// --- changes ----------------------------------------------------------------------------------

ConfigResult CConfigFile::AddValue(std::string_view section, std::string_view entry,
                                   std::string_view value) {
  const std::string sectionName = OneLine(section);
  const std::string entryName = OneLine(entry);
  if (!hasText_ || sectionName.empty() || !IsEntryName(entryName)) return ConfigResult::kFailed;
  const std::optional<SectionSpan> found = FindSection(text_, sectionName);
  // A missing section comes in front of everything; SetValue puts it behind everything.
  const std::size_t position = found ? found->insertion : 0;
  const std::string head =
      found ? std::string(MissingLineEnd(text_, position)) + '\n' : SectionHead(sectionName);
  return PutEntry({position, position}, head, entryName, value, "add");
}

ConfigResult CConfigFile::Delete(std::string_view section, std::optional<std::string_view> entry) {
  if (!hasText_) return ConfigResult::kFailed;
  TextRange cut;
  if (!entry) {
    cut = FindCutOfSection(text_, section);
  } else if (const EntrySearch found = FindEntry(text_, section, *entry);
             found.result == ConfigResult::kOk) {
    cut = {found.begin, found.end};
  }
  Erase(text_, cut);
  Touch();
  return ConfigResult::kOk;
}

ConfigResult CConfigFile::SetBlock(std::optional<std::string_view> name,
                                   std::span<const std::uint8_t> data) {
  if (!hasText_) return ConfigResult::kFailed;
  if (!name) {
    std::string text(data.begin(), data.end());
    ReplaceZeroBytes(text);
    return Adopt(std::move(text));
  }
  const std::string blockName = OneLine(*name);
  std::string text = text_;
  if (const std::optional<BlockSpan> old = FindBlock(text, blockName)) Erase(text, old->range);
  const std::size_t position = text.size();
  text += BlockText(blockName, data);
  // A block in front that is never closed would end here and hide all between.
  const std::optional<BlockSpan> made = FindBlock(text, blockName, position);
  if (!made || made->range.end != text.size() || !IsBlock(text, made->range)) {
    return ConfigResult::kFailed;
  }
  return Adopt(std::move(text));
}

ConfigResult CConfigFile::DeleteBlock(std::string_view name) {
  const std::optional<BlockSpan> block = FindBlock(text_, name);
  if (!block) return ConfigResult::kFailed;
  Erase(text_, block->range);
  Touch();
  return ConfigResult::kOk;
}

void CConfigFile::Sort() {
  std::string sorted = SortSections(text_);
  if (runtime::CompareNoCase(sorted, text_) != 0) (void)Adopt(std::move(sorted));
}

void CConfigFile::StripComments() {
  std::string kept = StripCommentLines(text_);
  if (kept.size() != text_.size()) (void)Adopt(std::move(kept));
}

}  // namespace qixx::config
