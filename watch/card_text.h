// Texts that a card, or a library that a command calls, says of itself.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace qixx::watch {

/// Makes such a text harmless wherever it is put: into a command, a path, a configuration file, the
/// trace. These become '_':
/// - control characters (C0 and C1), marks that turn the direction of writing, and bytes that are
///   not UTF-8;
/// - double quotes, '|', and a '>' that stands alone (between blanks, ends and '%');
/// - the '%' of what would be read as a placeholder, also where the text ends within its name;
/// - the '-' of what would be read as an option of a command that reads its own text;
/// - a '/' behind "..", a first or last component of a path that consists of dots, and a ".."
/// between
///   blanks;
/// - the blank in a name that makes a configuration file pass for one of an older version.
/// The result is not longer than the text. Parts of a cleaned text are to be cleaned again, since
/// something may stand alone, or at an end, in them.
[[nodiscard]] std::string CleanCardText(std::string_view text);

/// Whether one of the options begins at `place` that a command looks for in its own text.
[[nodiscard]] bool IsCommandOption(std::string_view text, std::size_t place);

/// Whether a character is a control character (C0 or C1) or turns the direction of writing: shown
/// as it is it would have a reader see another text than there is.
[[nodiscard]] bool Misleads(char32_t character);

/// The same value for the start of a line of a file: what would make a section, a block or a
/// comment of the line becomes '_'.
[[nodiscard]] std::string CleanLineStart(std::string_view cleaned);

/// The blocks that a file's text may have: a '<' at a line's start begins one, and a "/>" ends it,
/// or for who only looks for entries a line with a '>'.
enum class Blocks {
  kNone,         ///< there is no '<'
  kInLines,      ///< none goes on behind a line without a '>'
  kAcrossLines,  ///< one does
};
[[nodiscard]] Blocks BlocksOf(std::string_view text);
/// The same value for such a file: what would begin a block or end one, with what stands around it
/// or not, becomes '_'.
[[nodiscard]] std::string CleanBlockMarks(std::string_view cleaned, Blocks blocks);

}  // namespace qixx::watch
