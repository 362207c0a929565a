// Parsed, read-only lookup trees, and the process-wide cache that shares them.
//
// A tree is built from the text of a file and never changes. The last of equal names wins in it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
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
  /// Copies and parses the text. Null for a text of a million sections and entries, or nearly:
  /// it is then scanned.
  [[nodiscard]] static std::unique_ptr<const LookupTree> Build(std::string_view text);
  LookupTree(const LookupTree&) = delete;
  LookupTree& operator=(const LookupTree&) = delete;

  [[nodiscard]] std::string_view Text() const { return text_; }
  /// Letter case is ignored. Without an entry the section alone is asked for; its value is empty.
  [[nodiscard]] std::optional<std::string_view> FindValue(
      std::string_view section, std::optional<std::string_view> entry) const;

 private:
  struct Entry {
    std::string_view name;
    std::string_view value;
  };
  /// Its entries go on to those of the next section.
  struct Section {
    std::string_view name;
    std::size_t begin;  ///< index of its first entry
  };

  explicit LookupTree(std::string_view text) : text_(text) {}
  [[nodiscard]] std::optional<std::span<const Entry>> FindSection(std::string_view name) const;

  std::string text_;
  std::vector<Section> sections_;
  std::vector<Entry> entries_;
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
