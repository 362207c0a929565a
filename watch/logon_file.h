// The card holder's logon values in a configuration file.
//
// Files change as a whole or not at all as far as this unit writes them itself; a symbolic link
// stays one and its target is written. All operations may be called from any thread: each holds the
// file (watch/file_scope.h) from its first look at it to its last write, so that two commands lose
// none of their values. An empty path names no file. Only std::bad_alloc is thrown.
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
void WriteLogonValues(const std::string& file, const LogonValues& values);
/// Writes the user name and the domain under their keys; an empty one leaves the file's own.
void WriteLogonName(const std::string& file, const LogonName& name);
/// Empties what a removal clears: the user name, the domain, and the placeholders of the subject
/// and the serial number.
void ClearLogonValues(const std::string& file);
/// The same for the file as it was saved.
void RestoreAndClear(const std::string& file);

/// Writes one value into an existing configuration file. A name that begins with '%' is a
/// placeholder in the file's text. Any other is a configuration key: every entry of that name gets
/// the value, in any section and any letter case; where there is none, the section of the file's
/// first entry gets a new one.
void SetConfigValue(const std::string& file, std::string_view name, std::string_view value);
/// Saves a copy beside the file (".org") or, when there is one, restores the file from it. False
/// when nothing was copied.
bool BackupOrRestoreConfigFile(const std::string& file);

}  // namespace qixx::watch
