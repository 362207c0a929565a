#include "config/migration.h"

#include <cstddef>
#include <unordered_map>
#include <utility>
#include <vector>

#include "config/format.h"
#include "config/scan.h"
#include "runtime/text.h"

namespace qixx::config {
namespace {

constexpr std::string_view kImageSource = "CredentialProvider";
constexpr std::string_view kImageTarget = "Dialog Presentation";

bool Contains(std::string_view text, std::string_view pattern) {
  return runtime::FindText(text, pattern) != std::string_view::npos;
}

struct Entry {
  std::string name;
  std::string value;
  bool assigned = false;  ///< false for a line without '='
};

/// Unlike a written value this one was read from a line, so it is neither cut nor cleaned.
std::string LineOf(std::string_view name, std::string_view value) {
  return std::string(name).append(1, '=').append(value).append(1, '\n');
}

/// The entries of a section, of equal names the first one that has a value.
std::vector<Entry> CollectEntries(std::string_view text, const SectionSpan& section) {
  std::vector<Entry> entries;
  std::unordered_map<std::string, std::size_t> known;
  LineReader lines = LinesOf(text, section);
  while (const std::optional<TextLine> line = lines.Next()) {
    if (IsComment(line->text)) continue;
    const std::string_view name = EntryName(line->text);
    const auto [place, isNew] = known.try_emplace(Folded(name), entries.size());
    if (isNew) entries.push_back({std::string(name), {}, false});
    Entry& entry = entries[place->second];
    if (entry.assigned || !Contains(line->text, "=")) continue;
    entry.value = EntryValue(line->text);
    entry.assigned = true;
  }
  return entries;
}

/// As IsHeaderOf, but the letter case counts.
bool IsRewritable(std::string_view line, std::string_view name) {
  return IsHeaderOf(line, name) && line.substr(1).starts_with(name);
}

/// The lines of a section after setting all `entries` in it: each takes the place of the first
/// entry of its name; the others follow behind the last line.
std::string SetEntries(std::string_view text, const SectionSpan& section,
                       const std::vector<Entry>& entries) {
  std::unordered_map<std::string, const Entry*> waiting;
  for (const Entry& entry : entries) waiting.emplace(Folded(entry.name), &entry);

  std::string lines;
  std::size_t copied = section.header.end;
  LineReader reader = LinesOf(text, section);
  while (const std::optional<TextLine> line = reader.Next()) {
    if (IsComment(line->text) || !Contains(line->text, "=")) continue;
    const auto found = waiting.find(Folded(EntryName(line->text)));
    if (found == waiting.end()) continue;
    lines.append(text, copied, BeforeBlanks(text, line->begin) - copied);
    lines += MissingLineEnd(lines, lines.size());
    lines += LineOf(found->second->name, found->second->value);
    copied = BehindLineEnd(text, line->end);
    waiting.erase(found);
  }
  lines.append(text, copied, section.insertion - copied);
  if (!lines.ends_with('\n')) lines += '\n';
  for (const Entry& entry : entries) {
    if (waiting.count(Folded(entry.name)) != 0) lines += LineOf(entry.name, entry.value);
  }
  return lines;
}

bool IsImage(std::string_view line) {
  return Contains(line, "=") &&
         (runtime::StartsWithNoCase(line, "BMP") || runtime::StartsWithNoCase(line, "IMAGE"));
}

struct TakenImages {
  std::string rest;    ///< the text without the images that may leave their sections
  std::string images;  ///< the lines of those that are new to the other section
};

TakenImages TakeImages(std::string_view text) {
  std::unordered_map<std::string, std::string> targets;
  if (const std::optional<SectionSpan> section = FindSection(text, kImageTarget)) {
    for (const Entry& entry : CollectEntries(text, *section)) {
      if (entry.assigned) targets.emplace(Folded(entry.name), entry.value);
    }
  }
  TakenImages taken;
  std::size_t copied = 0;
  MarkReader marks(text);
  while (const std::optional<TextLine> header = marks.NextHeader()) {
    if (!IsHeaderOf(header->text, kImageSource)) continue;
    LineReader lines = LinesOf(text, SpanOfSection(text, *header));
    while (const std::optional<TextLine> line = lines.Next()) {
      if (!IsImage(line->text)) continue;
      const std::string_view name = EntryName(line->text);
      const std::string_view value = EntryValue(line->text);
      const auto [target, isNew] = targets.try_emplace(Folded(name), value);
      if (!isNew && !runtime::EqualsNoCase(target->second, value)) continue;
      if (isNew) taken.images += LineOf(name, value);
      taken.rest.append(text, copied, BeforeBlanks(text, line->begin) - copied);
      copied = BehindLineEnd(text, line->end);
    }
  }
  taken.rest.append(text, copied);
  return taken;
}

}  // namespace

bool LooksOld(std::string_view text) {
  return (Contains(text, kOldSoftToken) && !Contains(text, "SoftToken")) ||
         (Contains(text, kOldGeneral) && !Contains(text, "General"));
}

std::optional<std::string> MergeBeforeRename(std::string_view text, std::string_view oldName,
                                             std::string_view newName) {
  if (runtime::EqualsNoCase(oldName, newName) || !FindHeader(text, oldName, IsRewritable)) {
    return std::nullopt;
  }
  const std::optional<TextLine> header = FindHeader(text, newName, IsExactHeaderOf);
  if (!header) return std::nullopt;
  const SectionSpan source = SpanOfSection(text, *header);
  const std::vector<Entry> entries = CollectEntries(text, source);
  if (entries.empty()) return std::nullopt;

  const TextRange cut = FindCutOfSection(text, newName);
  std::string merged(text, 0, cut.begin);
  merged.append(text, cut.end);
  const std::optional<SectionSpan> target = FindSection(merged, oldName);
  if (!target) return std::nullopt;
  const std::size_t begin = target->header.end;
  merged.replace(begin, target->insertion - begin, SetEntries(merged, *target, entries));
  return merged;
}

std::string RewriteHeaders(std::string_view text, std::string_view oldName,
                           std::string_view newName) {
  std::string rewritten;
  std::size_t copied = 0;
  MarkReader marks(text);
  while (const std::optional<TextLine> header = marks.NextHeader()) {
    if (!IsRewritable(header->text, oldName)) continue;
    const std::size_t name = header->begin + 1;
    rewritten.append(text, copied, name - copied).append(newName);
    copied = name + oldName.size();
  }
  return rewritten.append(text, copied);
}

std::optional<std::string> MoveImages(std::string_view text) {
  auto [moved, images] = TakeImages(text);
  if (moved.size() == text.size()) return std::nullopt;
  if (images.empty()) return std::move(moved);
  const std::optional<SectionSpan> section = FindSection(moved, kImageTarget);
  const std::size_t at = section ? section->insertion : moved.size();
  images.insert(0, section ? std::string(MissingLineEnd(moved, at)) : SectionHead(kImageTarget));
  moved.insert(at, images);
  return std::move(moved);
}

}  // namespace qixx::config
