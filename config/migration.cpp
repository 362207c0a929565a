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

constexpr SectionAlias kSectionAliases[] = {
    {"Soft Tokens", "SoftToken"},
    {"Admin Utility", "General"},
    {"CallTrace", "Trace Call"},
    {"CardBitmap", "Dialog Image"},
    {"Compress", "SmartCard Compress"},
    {"Custom Links", "Links Custom"},
    {"Dynamic Strings", "DynamicStrings"},
    {"Default Certificate", "DefaultCertificate"},
    {"File Extensions", "Encryption FileExtension"},
    {"InstallOptions", "Install Option"},
    {"PCSC", "SmartCardReader PCSC"},
    {"Credential Provider", "CredentialProvider"},
    {"Certificate Provider", "CredentialProvider Certificate"},
    {"Enroll Provider", "CredentialProvider Enroll"},
    {"PIN Provider", "CredentialProvider Pin"},
    {"Unlock Provider", "CredentialProvider Unlock"},
    {"Password Provider", "CredentialProvider Password"},
    {"Change Credential Provider", "CredentialProvider Change"},
    {"Packages", "Install Packages"},
    {"Shortcuts", "Install Shortcuts"},
    {"Smart Card", "SmartCard"},
    {"Smart Card Reader", "SmartCardReader"},
    {"InitProfiles", "SmartCardProfile"},
};

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

/// The lines of a section, without its header.
LineReader LinesOf(std::string_view text, const SectionSpan& section) {
  return LineReader(text.substr(0, section.end), section.header.end);
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

using ValuesByName = std::unordered_map<std::string, std::string>;

ValuesByName CollectImageTargets(std::string_view text) {
  ValuesByName values;
  const std::optional<SectionSpan> section = FindSection(text, kImageTarget);
  if (!section) return values;
  for (const Entry& entry : CollectEntries(text, *section)) {
    if (entry.assigned) values.emplace(Folded(entry.name), entry.value);
  }
  return values;
}

struct TakenImages {
  std::string rest;    ///< the text without the images that may leave their sections
  std::string images;  ///< the lines of those that are new to the other section
};

TakenImages TakeImages(std::string_view text) {
  ValuesByName targets = CollectImageTargets(text);
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

std::span<const SectionAlias> SectionAliases() {
  return kSectionAliases;
}

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

  const TextRange cut = FindCutOfSection(text, newName).value_or(TextRange{});
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
  if (!section) {
    moved += SectionHead(kImageTarget) + images;
    return std::move(moved);
  }
  const std::size_t at = section->insertion;
  images.insert(0, MissingLineEnd(moved, at));
  moved.insert(at, images);
  return std::move(moved);
}

}  // namespace qixx::config
