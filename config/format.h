// Cleaning a whole configuration text, and the pieces that changes put into one.
//
// All of them work on texts of any bytes in time proportional to their length.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace qixx::config {

// --- whole texts ------------------------------------------------------------------------------

/// Cleans the bytes of a file: leading bytes of 0x80 and above go (byte order marks), zero bytes at
/// the end go, any other zero byte marks UTF-16 little-endian, which becomes UTF-8. No zero byte is
/// left. A text without any LF has CR as its line end and gets LF instead, because a change puts
/// LFs beside them and saving takes CRs out.
void NormaliseLoaded(std::string& text);
/// Takes the CRs out (or makes LFs of them, as above) and shortens runs of empty lines. Allocates
/// nothing.
void NormaliseForSave(std::string& text);
/// Puts a '.' in the place of every zero byte.
void ReplaceZeroBytes(std::string& text);

// --- pieces -----------------------------------------------------------------------------------

/// A name or value as it may stand in a line: up to its first zero byte, and CR and LF become
/// blanks.
[[nodiscard]] std::string OneLine(std::string_view text);
/// `head` and the line "entry=value". The value is cut so that all fits into kGrowthStep bytes;
/// nothing when not even the names fit.
[[nodiscard]] std::optional<std::string> EntryText(std::string_view head, std::string_view entry,
                                                   std::string_view value);
/// A blank line and the header of a new section.
[[nodiscard]] std::string SectionHead(std::string_view section);
/// What must stand in front of a line that is put at `position`. A CR alone is no line end there,
/// because saving takes it out.
[[nodiscard]] std::string_view MissingLineEnd(std::string_view text, std::size_t position);
/// The text with its ASCII letters in lower case.
[[nodiscard]] std::string Folded(std::string_view text);

}  // namespace qixx::config
