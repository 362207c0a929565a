// What a configuration names outside itself (programs, libraries, documents, files), and the
// placeholders that may bring a card's values there.
//
// Each path is looked at with the rights of the user who checks. None is opened but a saved copy
// and the file that it is of.
#pragma once

#include <string>
#include <string_view>

#include "watch/check_file.h"
#include "watch/check_report.h"

namespace qixx::watch {

/// Placeholders that are misspelt, that have no end, and, where `isFilled` is false, that stay.
void CheckPlaceholders(const Report& report, bool isFilled, std::string_view text);
/// Whether a value of a card may come into the text.
[[nodiscard]] bool HoldsPlaceholder(std::string_view text);

/// A program is started by its whole path, and never by what a card says.
void CheckProgramPath(const Report& report, const std::string& program);
/// A library without a '/' is looked for by the loader, and not here.
void CheckLibraryPath(const Report& report, const std::string& library);
/// A document, if it is no address, and the program that shows it.
void CheckDocumentPath(const Report& report, std::string document);
/// A file that logon values are written to: it has to be there, in a folder that takes its copy. No
/// card may name it.
void CheckValuesPath(const Report& report, bool isFilled, const std::string& file);
/// A file that is made when it is missing; `whose` ("output's") names it where a placeholder stands
/// in it, for no card may name it.
void CheckMadePath(const Report& report, bool isFilled, const std::string& whose,
                   const std::string& file);

/// Names and folders of the files that are to be traced to. A journal, and a trace server, are no
/// files.
void CheckTraceFiles(const CheckedConfiguration& configuration, Mistakes& mistakes);

[[nodiscard]] bool IsFolder(const std::string& path);

}  // namespace qixx::watch
