// Spare: asked of this layer by the suite's design, built, called by nothing in this
// program. Blocks, and rewriting a whole text.
//
// All of them work on texts of any bytes in time proportional to their length.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "config/scan.h"

namespace qixx::config {

/// The sections in the order of their names, letter case ignored, without blank lines, blanks in
/// front of lines and what stands before the first header. Of sections with equal names the first
/// becomes the last.
[[nodiscard]] std::string SortSections(std::string_view text);
/// Without empty lines and lines that begin with ";" or "//"; blocks are kept as they are.
[[nodiscard]] std::string StripCommentLines(std::string_view text);

struct BlockSpan {
  TextRange range;  ///< from '<' to "/>"
  std::string_view body;
};
/// The first block of that name that begins at `from` or behind it, wherever its '<' stands. An
/// empty name is none.
[[nodiscard]] std::optional<BlockSpan> FindBlock(std::string_view text, std::string_view name,
                                                 std::size_t from = 0);
/// Whether that piece of the text is a block to the readers of sections too.
[[nodiscard]] bool IsBlock(std::string_view text, TextRange range);
/// The written form of a block.
[[nodiscard]] std::string BlockText(std::string_view name, std::span<const std::uint8_t> data);

}  // namespace qixx::config
