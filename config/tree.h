// Parsed, read-only lookup trees, and the process-wide cache that shares them.
//
// A tree is built from the text of a file and never changes. It answers a lookup as a walk along
// the lists of its nodes; as these are built by prepending, the last of equal names wins.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/sync.h"

namespace qixx::config {

/// What a line is to a lookup tree; comments and empty lines are not told.
enum class TreeLineKind : std::uint8_t {
  kSection,
  kEntry,
  // What a tree leaves out:
  kNameless,  ///< a header without a name
  kIndented,  ///< begins with a blank
  kPlain,     ///< has no '='
  kOutside,   ///< an entry in front of the first section
};

struct TreeLine {
  TreeLineKind kind = TreeLineKind::kPlain;
  std::string_view text;  ///< the whole line
  std::size_t begin = 0;  ///< its position
};

/// Reads the lines of a text as a lookup tree sees them. Blocks are passed over.
class TreeReader {
 public:
  explicit TreeReader(std::string_view text) : text_(text) {}
  /// Nothing at the end of the text.
  [[nodiscard]] std::optional<TreeLine> Next();

 private:
  [[nodiscard]] TreeLineKind KindOf(std::string_view line);

  std::string_view text_;
  std::size_t position_ = 0;
  bool hasSection_ = false;
};

class LookupTree {
 public:
  /// Copies and parses the text. Null when it has more than a million sections and entries.
  [[nodiscard]] static std::unique_ptr<const LookupTree> Build(std::string_view text);
  LookupTree(const LookupTree&) = delete;
  LookupTree& operator=(const LookupTree&) = delete;

  [[nodiscard]] std::string_view Text() const { return text_; }
  /// Letter case is ignored.
  [[nodiscard]] bool HasSection(std::string_view section) const;
  [[nodiscard]] std::optional<std::string_view> FindValue(std::string_view section,
                                                          std::string_view entry) const;

 private:
  using NodeIndex = std::uint32_t;
  static constexpr NodeIndex kRoot = 0;

  enum class NodeKind : std::uint8_t { kRoot, kSection, kEntry };
  /// Nodes stand in one array and name each other by index; no node has the root as its relative,
  /// so its index doubles as the end of a list.
  struct Node {
    std::string_view name;
    std::string_view value;  ///< of the root: the whole text
    NodeIndex firstChild = kRoot;
    NodeIndex nextSibling = kRoot;
    std::uint32_t nameHash = 0;  ///< of the folded name; spares most comparisons
    NodeKind kind = NodeKind::kRoot;
  };

  explicit LookupTree(std::string_view text);
  [[nodiscard]] bool Parse();
  [[nodiscard]] NodeIndex Prepend(NodeIndex parent, NodeKind kind, std::string_view name,
                                  std::string_view value);
  [[nodiscard]] NodeIndex FindChild(NodeIndex parent, std::string_view name) const;

  std::string text_;
  std::vector<Node> nodes_;
};

/// The cache: three trees, each with the path it came from. Attach and destruction may be called
/// from any thread. Whoever holds a tree uses it, and may go on after the cache has gone.
class CConfigTree {
 public:
  CConfigTree() = default;
  /// Trees in use are reported.
  ~CConfigTree();
  CConfigTree(const CConfigTree&) = delete;
  CConfigTree& operator=(const CConfigTree&) = delete;

  /// The cache of the process; it is never destroyed.
  static CConfigTree& Instance();

  /// The tree of `text`, shared when the cache holds one with the same bytes. Null when no tree
  /// could be built or the place is taken by a tree in use: the text is then scanned.
  [[nodiscard]] std::shared_ptr<const LookupTree> Attach(std::string_view path,
                                                         std::string_view text);

 private:
  struct Slot {
    std::string path;
    std::int64_t lastUse = 0;  ///< in seconds, 0 for never
    std::shared_ptr<const LookupTree> tree;

    [[nodiscard]] bool IsInUse() const { return tree.use_count() > 1; }
  };

  Slot& ChooseSlot(std::string_view path);

  runtime::CCritical lock_;
  Slot slots_[3];
};

}  // namespace qixx::config
