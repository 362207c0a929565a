// Reading a configuration text in place: lines, headers, entries and blocks.
//
// Everything here looks at a text without changing or copying it; the views point into that text.
// Any bytes may stand in it. A walk over a text takes time in proportion to its length.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "config/result.h"

namespace qixx::config {

/// Steps in which the capacity of a text grows; also the longest text that one change writes.
inline constexpr std::size_t kGrowthStep = 164096;
/// A longer line is cut there; what follows up to its end is passed over.
inline constexpr std::size_t kMaxConfigLine = 164096;

inline constexpr std::size_t kNoPosition = std::string_view::npos;

/// From `begin` to in front of `end`.
struct TextRange {
  std::size_t begin = 0;
  std::size_t end = 0;
};

/// One line without the blanks in front of it and its line end.
struct TextLine {
  std::string_view text;  ///< cut at kMaxConfigLine
  std::size_t begin = 0;  ///< position of `text`
  std::size_t end = 0;    ///< position behind the whole line, in front of its line end
};

[[nodiscard]] constexpr bool IsLineBreak(char c) {
  return c == '\n' || c == '\r';
}
/// Position of the first CR or LF from `from` on, else the end of the text.
[[nodiscard]] std::size_t FindLineEnd(std::string_view text, std::size_t from);
/// Steps back over the blanks in front of a line.
[[nodiscard]] std::size_t BeforeBlanks(std::string_view text, std::size_t begin);
/// Steps over one CR and one LF.
[[nodiscard]] std::size_t BehindLineEnd(std::string_view text, std::size_t end);

/// Reads lines; blanks, CR and LF in front of a line are skipped, so empty lines do not show.
class LineReader {
 public:
  explicit LineReader(std::string_view text, std::size_t position = 0)
      : text_(text), position_(position) {}
  /// Nothing at the end of the text.
  [[nodiscard]] std::optional<TextLine> Next();

 private:
  std::string_view text_;
  std::size_t position_;
};

/// Walks the headers and blocks of a text without looking at the lines between. What stands in a
/// block, or behind it in its last line, belongs to no section and is passed over; only another
/// block may follow there. A block that is never closed ends a section, but hides nothing.
class MarkReader {
 public:
  explicit MarkReader(std::string_view text) : text_(text), bracket_(text.find('[')) {}
  /// Both give nothing at the end of the text. What is not asked for is passed over, so a reader is
  /// asked either for headers or for blocks.
  [[nodiscard]] std::optional<TextLine> NextHeader();
  [[nodiscard]] std::optional<TextRange> NextBlock();

 private:
  enum class Mark { kHeader, kBlock };

  std::optional<TextRange> Find(Mark wanted);
  std::size_t BehindBlock(std::size_t begin);

  std::string_view text_;
  std::size_t position_ = 0;
  std::size_t bracket_;
  std::size_t terminator_ = 0;  ///< of a block; the text is searched for it only once
  std::size_t blockEnd_ = 0;    ///< behind the last block
};

// --- lines ------------------------------------------------------------------------------------

[[nodiscard]] constexpr bool IsComment(std::string_view line) {
  return line.starts_with(';') || line.starts_with('#');
}
/// A header or the begin of a block.
[[nodiscard]] constexpr bool EndsSection(std::string_view line) {
  return line.starts_with('[') || line.starts_with('<');
}
/// The name up to the first ']'; empty for a header without one.
[[nodiscard]] std::string_view HeaderName(std::string_view line);
/// Letter case is ignored, and so is what stands behind the ']'.
[[nodiscard]] bool IsHeaderOf(std::string_view line, std::string_view section);
/// Letter case is ignored; nothing may stand behind the ']'.
[[nodiscard]] bool IsExactHeaderOf(std::string_view line, std::string_view section);
/// Whether the line that is written for an entry of that name is read as one again.
[[nodiscard]] bool IsEntryName(std::string_view name);
/// The text in front of the first '=', else the whole line.
[[nodiscard]] std::string_view EntryName(std::string_view line);
/// A name as an enumeration hands it out: cut at 255 characters.
[[nodiscard]] std::string CutName(std::string_view name);
/// The text behind the first '=' without trailing blanks.
[[nodiscard]] std::string_view EntryValue(std::string_view line);

// --- sections and entries ---------------------------------------------------------------------

/// Whether a line is a header of that section, by one rule or another.
using HeaderTest = bool (*)(std::string_view line, std::string_view section);
/// The first header that passes the test.
[[nodiscard]] std::optional<TextLine> FindHeader(std::string_view text, std::string_view section,
                                                 HeaderTest test);

/// The lines of a section: from behind its header to the next header or block.
struct SectionSpan {
  TextLine header;
  std::size_t end = 0;        ///< where the next header or block begins, or the end of the text
  std::size_t insertion = 0;  ///< behind the section's last line that is not empty
};
[[nodiscard]] SectionSpan SpanOfSection(std::string_view text, const TextLine& header);
/// The lines of a section, without its header.
[[nodiscard]] LineReader LinesOf(std::string_view text, const SectionSpan& section);
/// The first section of that name.
[[nodiscard]] std::optional<SectionSpan> FindSection(std::string_view text, std::string_view name);
/// What to cut out to delete a section of that name. The first whose header directly follows an LF
/// counts, and that LF is cut too; without such a one, the first of all. The line end in front of
/// the next header or block stays. Empty when there is none.
[[nodiscard]] TextRange FindCutOfSection(std::string_view text, std::string_view name);

/// Where an entry is, or where it would be put.
struct EntrySearch {
  ConfigResult result = ConfigResult::kNoSection;
  std::string_view value;
  std::size_t begin = 0;  ///< the whole line with blanks in front; the insertion point of a miss
  std::size_t end = 0;    ///< behind its line end; equal to `begin` for a miss
};
/// The first matching entry of the first section of that name. Without an entry that section alone
/// is asked for: where an entry would be put in it.
[[nodiscard]] EntrySearch FindEntry(std::string_view text, std::string_view section,
                                    std::optional<std::string_view> entry);

/// Reads the entries of all sections; what stands in blocks or in front of the first header is
/// none. A line without '=' counts.
class EntryReader {
 public:
  struct Names {
    std::string_view section;
    std::string_view entry;
  };

  explicit EntryReader(std::string_view text) : lines_(text) {}
  [[nodiscard]] std::optional<Names> Next();

 private:
  LineReader lines_;
  std::string_view section_;
  bool inBlock_ = false;
};

}  // namespace qixx::config
