// What a configuration names outside itself: programs, libraries, documents and files.
//
// Each is looked at with the rights of the user who checks. None is opened but a saved copy and the
// file that it is of.
#pragma once

#include <string>
#include <string_view>

#include "watch/check_report.h"

namespace qixx::watch {

/// What is meant where rights are missing.
inline constexpr std::string_view kOtherUser = "check as the user that the service runs as";

/// Up to and with the last '/'; "." for a path without one.
[[nodiscard]] std::string FolderOf(const std::string& path);
[[nodiscard]] bool IsFolder(const std::string& path);
/// Whether a file may be written, or made where it is missing.
[[nodiscard]] bool MayWrite(const std::string& path);

/// A program is started by its whole path, and never by what a card says.
void CheckProgramPath(const Place& place, const std::string& program, Mistakes& mistakes);
/// A library without a '/' is looked for by the loader, and not here.
void CheckLibraryPath(const Place& place, std::string_view library, Mistakes& mistakes);
/// A document, if it is no address, and the program that shows it.
void CheckDocumentPath(const Place& place, const std::string& document, Mistakes& mistakes);
/// A file that logon values are written to: it has to be there, in a folder that takes its copy.
void CheckValuesPath(const Place& place, const std::string& file, Mistakes& mistakes);
/// A file that takes a program's output; it is made when it is missing.
void CheckOutputPath(const Place& place, const std::string& file, Mistakes& mistakes);

}  // namespace qixx::watch
