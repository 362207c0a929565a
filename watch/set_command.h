// Writing the card holder's logon values into configuration files.
//
// Files change as a whole or not at all as far as this unit writes them itself; a symbolic link
// stays one and its target is written. All operations may be called from any thread: one lock is
// held while a file is read, changed and written, so that two commands lose none of their values;
// the file's folder is locked too, which holds other services off for up to two seconds.
// Nothing is thrown, but for what ReplaceAll says.
#pragma once

#include <string>
#include <string_view>

#include "pkcs11/cryptoki.h"

namespace qixx::watch {

/// The configuration keys of the logon values.
inline constexpr std::string_view kUserNameKey = "Username";
inline constexpr std::string_view kDomainKey = "Domain";

/// "-match", "-registry" and "-config" of `text`; on insert the card's values are written, on
/// removal empty ones. Registry places do not exist on this platform, but naming one is enough for
/// success. An insert without a slot (a simulation) fails before the card is asked.
bool SetCommand(CK_SLOT_ID slot, std::string_view text, bool insert);
/// Builds the text from its non-empty parts; false without a call when there are none.
bool RunSetCommand(CK_SLOT_ID slot, std::string_view match, std::string_view registry,
                   std::string_view configFile, bool insert);

/// Writes the user name and the domain under their keys; an empty one leaves the file's own.
void WriteLogonName(const char* file, std::string_view user, std::string_view domain);
/// Empties what a removal clears: the user name, the domain, and the placeholders of the subject
/// and the serial number.
void ClearLogonValues(const char* file);
/// The same for the file as it was saved; see BackupOrRestoreConfigFile.
void RestoreAndClear(const char* file);

/// Writes one value into an existing configuration file. A name that begins with '%' is a
/// placeholder in the file's text (the key of "%OID." names in any letter case). Any other is a
/// configuration key: every entry of that name gets the value, in any section and any letter case;
/// where there is none, the section of the file's first entry gets a new one.
void SetConfigValue(const char* file, std::string_view name, std::string_view value);
/// Saves a copy beside the file (".org") or, when there is one, restores the file from it. False
/// when nothing was copied.
bool BackupOrRestoreConfigFile(const char* file);

/// Replaces every occurrence of `name`, also those that a replacement brings about, as long as that
/// must come to an end; else the search goes on behind the replacement. May throw std::bad_alloc.
void ReplaceAll(std::string& text, std::string_view name, std::string_view value);

}  // namespace qixx::watch
