#include "config/tree.h"

#include <algorithm>
#include <ctime>

#include "config/scan.h"
#include "runtime/no_destructor.h"
#include "runtime/text.h"
#include "runtime/trace.h"

namespace qixx::config {
namespace {

/// Keeps a text of nothing but tiny lines from taking many times its size.
constexpr std::size_t kMaxNodes = 999'999;

/// Other rules than those of the text scan: "#" is an ordinary character here, "//" is not, and an
/// indented line is ignored.
bool IsTreeComment(std::string_view line) {
  return line.front() == ';' || line.starts_with("//");
}

std::size_t BehindBlock(std::string_view text, std::size_t begin) {
  const std::size_t end = text.find('>', begin);
  return end == kNoPosition ? text.size() : FindLineEnd(text, end);
}

}  // namespace

std::optional<TreeLine> TreeReader::Next() {
  while (position_ < text_.size()) {
    if (text_[position_] == '<') {
      position_ = BehindBlock(text_, position_);
      continue;
    }
    const std::size_t begin = position_;
    const std::size_t end = FindLineEnd(text_, begin);
    const std::string_view line = text_.substr(begin, end - begin);
    position_ = end + 1;
    if (!line.empty() && !IsTreeComment(line)) return TreeLine{KindOf(line), line, begin};
  }
  return std::nullopt;
}

TreeLineKind TreeReader::KindOf(std::string_view line) {
  if (line.front() == ' ') return TreeLineKind::kIndented;
  if (line.front() == '[') {
    if (HeaderName(line).empty()) return TreeLineKind::kNameless;
    hasSection_ = true;
    return TreeLineKind::kSection;
  }
  if (line.find('=') == kNoPosition) return TreeLineKind::kPlain;
  return hasSection_ ? TreeLineKind::kEntry : TreeLineKind::kOutside;
}

std::unique_ptr<const LookupTree> LookupTree::Build(std::string_view text) {
  std::unique_ptr<LookupTree> tree(new LookupTree(text));
  TreeReader lines(tree->text_);
  while (const std::optional<TreeLine> line = lines.Next()) {
    if (tree->sections_.size() + tree->entries_.size() >= kMaxNodes) return nullptr;
    if (line->kind == TreeLineKind::kSection) {
      tree->sections_.push_back({HeaderName(line->text), tree->entries_.size()});
    } else if (line->kind == TreeLineKind::kEntry) {
      tree->entries_.push_back({EntryName(line->text), EntryValue(line->text)});
    }
  }
  return tree;
}

std::optional<std::span<const LookupTree::Entry>> LookupTree::FindSection(
    std::string_view name) const {
  std::size_t end = entries_.size();
  for (auto section = sections_.rbegin(); section != sections_.rend(); ++section) {
    if (runtime::EqualsNoCase(section->name, name)) {
      return std::span(entries_).subspan(section->begin, end - section->begin);
    }
    end = section->begin;
  }
  return std::nullopt;
}

std::optional<std::string_view> LookupTree::FindValue(std::string_view section,
                                                      std::optional<std::string_view> entry) const {
  const auto entries = FindSection(section);
  if (!entries) return std::nullopt;
  if (!entry) return "";
  for (auto known = entries->rbegin(); known != entries->rend(); ++known) {
    if (runtime::EqualsNoCase(known->name, *entry)) return known->value;
  }
  return std::nullopt;
}

CConfigTree::~CConfigTree() {
  const runtime::CriticalScope hold(&lock_);
  for (const Slot& slot : slots_) {
    if (slot.IsInUse()) runtime::TraceWrite("Config - WARNING Tree cache in use");
  }
}

CConfigTree& CConfigTree::Instance() {
  static runtime::NoDestructor<CConfigTree> instance;
  return *instance;
}

std::shared_ptr<const LookupTree> CConfigTree::Attach(std::string_view path,
                                                      std::string_view text) {
  const runtime::CriticalScope hold(&lock_);
  Slot& slot = ChooseSlot(path);
  if (slot.tree == nullptr || slot.tree->Text() != text) {
    if (slot.IsInUse()) return nullptr;
    slot.path = path;
    slot.tree = LookupTree::Build(text);
    slot.lastUse = 0;
    if (slot.tree == nullptr) return nullptr;
  }
  slot.lastUse = std::time(nullptr);
  return slot.tree;
}

CConfigTree::Slot& CConfigTree::ChooseSlot(std::string_view path) {
  auto* const found = std::ranges::find(slots_, path, &Slot::path);
  return found != std::end(slots_) ? *found : *std::ranges::min_element(slots_, {}, &Slot::lastUse);
}

}  // namespace qixx::config
