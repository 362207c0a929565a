// The card holder's logon values in a configuration file.
//
// Each operation makes one new text of the file and puts it in the old one's place in one step; a
// symbolic link stays one and its target is replaced. False means that this was not possible and
// that the file is as it was: it is missing or may not be written, a saved copy that is needed
// cannot be made or trusted, or the new text would be too long. The trace says which.
//
// All operations may be called from any thread: each holds the file (watch/file_scope.h) from its
// first look at it to the end, so that two commands lose none of their values. Only std::bad_alloc
// is thrown.
#pragma once

#include <string>
#include <string_view>

#include "watch/credentials.h"

namespace qixx::watch {

/// The configuration keys of the logon values.
inline constexpr std::string_view kUserNameKey = "Username";
inline constexpr std::string_view kDomainKey = "Domain";

/// What an insert makes of the file: its saved state (see BackupOrRestoreConfigFile) with all
/// values that are not empty.
[[nodiscard]] bool WriteLogonValues(const std::string& path, const LogonValues& values);
/// Writes the user name and the domain under their keys; an empty one leaves the file's own, and an
/// empty path names no file.
bool WriteLogonName(const std::string& path, const LogonName& name);
/// Empties what a removal clears: the user name, the domain, and the placeholders of the subject
/// and the serial number.
[[nodiscard]] bool ClearLogonValues(const std::string& path);
/// The same for the file as it was saved; one that was never saved is saved first. An empty path
/// names no file.
bool RestoreAndClear(const std::string& path);

/// Writes one value into an existing configuration file. A name that begins with '%' is a
/// placeholder in the file's text. Any other is a configuration key: every entry of that name gets
/// the value, in any section and any letter case; where there is none, the section of the file's
/// first entry gets a new one. Nothing happens without a path or a name.
bool SetConfigValue(const std::string& path, std::string_view name, std::string_view value);
/// Saves a copy beside the file (".org") or, when there is one, restores the file from it. The copy
/// is a regular file with one name, no link, and belongs to the service's user or the file's owner.
bool BackupOrRestoreConfigFile(const std::string& path);

}  // namespace qixx::watch
