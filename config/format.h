// Transformations of a whole configuration text, and the pieces that changes put into one.
//
// All of them work on texts of any bytes in time proportional to their length. std::bad_alloc
// passes through; the callers turn it into a failed operation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
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
/// The sections in the order of their names, letter case ignored, without blank lines, blanks in
/// front of lines and what stands before the first header. Of sections with equal names the first
/// becomes the last.
[[nodiscard]] std::string SortSections(std::string_view text);
/// Without empty lines and lines that begin with ";" or "//"; blocks are kept as they are.
[[nodiscard]] std::string StripCommentLines(std::string_view text);

// --- pieces -----------------------------------------------------------------------------------

/// A name or value as it may stand in a line: CR and LF become blanks.
[[nodiscard]] std::string OneLine(std::string_view text);
/// `head` and the line "entry=value". The value is cut so that all fits into kGrowthStep bytes;
/// empty when not even the names fit.
[[nodiscard]] std::string EntryText(std::string_view head, std::string_view entry,
                                    std::string_view value);
/// A blank line and the header of a new section.
[[nodiscard]] std::string SectionHead(std::string_view section);
/// The written form of a block; empty when the data are too long to be written.
[[nodiscard]] std::string BlockText(std::string_view name, std::span<const std::uint8_t> data);
/// The text with its ASCII letters in lower case.
[[nodiscard]] std::string Folded(std::string_view text);

}  // namespace qixx::config
