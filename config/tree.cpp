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
constexpr std::size_t kMaxNodes = 1'000'000;
/// Roughly; only saves growing the array of nodes while the text is read.
constexpr std::size_t kUsualLineLength = 32;

/// FNV-1a over the folded bytes.
std::uint32_t HashFolded(std::string_view name) {
  std::uint32_t hash = 2166136261U;
  for (const char c : name)
    hash = (hash ^ static_cast<unsigned char>(runtime::FoldCase(c))) * 16777619U;
  return hash;
}

/// Deliberately other rules than those of the text scan: "#" is an ordinary character here, "//" is
/// not, and an indented line is ignored.
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
  if (runtime::FindChar(line, '=') == kNoPosition) return TreeLineKind::kPlain;
  return hasSection_ ? TreeLineKind::kEntry : TreeLineKind::kOutside;
}

LookupTree::LookupTree(std::string_view text) : text_(text) {
  nodes_.reserve(std::min(text.size() / kUsualLineLength + 2, kMaxNodes));
  nodes_.push_back({{}, text_, kRoot, kRoot, 0, NodeKind::kRoot});
}

std::unique_ptr<const LookupTree> LookupTree::Build(std::string_view text) {
  std::unique_ptr<LookupTree> tree(new LookupTree(text));
  if (!tree->Parse()) return nullptr;
  return tree;
}

bool LookupTree::Parse() {
  NodeIndex section = kRoot;
  TreeReader lines(text_);
  while (const std::optional<TreeLine> line = lines.Next()) {
    if (nodes_.size() >= kMaxNodes) return false;
    if (line->kind == TreeLineKind::kSection) {
      section = Prepend(kRoot, NodeKind::kSection, HeaderName(line->text), {});
    } else if (line->kind == TreeLineKind::kEntry) {
      (void)Prepend(section, NodeKind::kEntry, EntryName(line->text), EntryValue(line->text));
    }
  }
  return true;
}

LookupTree::NodeIndex LookupTree::Prepend(NodeIndex parent, NodeKind kind, std::string_view name,
                                          std::string_view value) {
  const auto index = static_cast<NodeIndex>(nodes_.size());
  nodes_.push_back({name, value, kRoot, nodes_[parent].firstChild, HashFolded(name), kind});
  nodes_[parent].firstChild = index;
  return index;
}

LookupTree::NodeIndex LookupTree::FindChild(NodeIndex parent, std::string_view name) const {
  const std::uint32_t hash = HashFolded(name);
  NodeIndex child = nodes_[parent].firstChild;
  while (child != kRoot &&
         (nodes_[child].nameHash != hash || !runtime::EqualsNoCase(nodes_[child].name, name))) {
    child = nodes_[child].nextSibling;
  }
  return child;
}

bool LookupTree::HasSection(std::string_view section) const {
  return FindChild(kRoot, section) != kRoot;
}

std::optional<std::string_view> LookupTree::FindValue(std::string_view section,
                                                      std::string_view entry) const {
  const NodeIndex parent = FindChild(kRoot, section);
  if (parent == kRoot) return std::nullopt;
  const NodeIndex child = FindChild(parent, entry);
  if (child == kRoot) return std::nullopt;
  return nodes_[child].value;
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
  const auto samePath = [path](const Slot& slot) { return slot.path == path; };
  const auto found = std::find_if(std::begin(slots_), std::end(slots_), samePath);
  if (found != std::end(slots_)) return *found;
  return *std::min_element(std::begin(slots_), std::end(slots_),
                           [](const Slot& a, const Slot& b) { return a.lastUse < b.lastUse; });
}

}  // namespace qixx::config
