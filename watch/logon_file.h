// The card holder's logon values in a configuration file.
//
// Each operation makes one new text of the file and puts it in the old one's place in one step; a
// symbolic link stays one and its target is replaced. False means that this was not possible and
// that the file is as it was: it is missing or may not be written, a saved copy that is needed
// cannot be made or trusted, the new text would be too long, or one of the bounds below is reached.
// The trace says which.
//
// All operations may be called from any thread: each holds the file (watch/file_scope.h) from its
// first look at it to the end, so that two commands lose none of their values. Only std::bad_alloc
// is thrown.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "watch/credentials.h"

namespace qixx::watch {

/// The most entries of one name that are set.
inline constexpr std::size_t kMaxSetEntries = 1000;
/// The most bytes of its text that one operation walks, whatever is written in there. Each key
/// walks it once and once more for each entry that it sets, each placeholder that is in there once;
/// see ReplaceAll. A text that may have section names of older versions counts 256 times for each
/// key.
inline constexpr std::size_t kMaxWalked = std::size_t{1} << 28;

/// What an insert makes of the file: its state as it was saved, all values that are not empty
/// filled in; one that was never saved is saved first. `cardsGone` is CardsGone() at the event:
/// when a card has gone since, nothing is written and the answer is false.
[[nodiscard]] bool WriteLogonValues(const std::string& path, const LogonValues& values,
                                    unsigned cardsGone);
/// Writes the user name and the domain under their keys; an empty one leaves the file's own, and an
/// empty path names no file. Nothing when a card has gone since, as above.
bool WriteLogonName(const std::string& path, const LogonName& name, unsigned cardsGone);
/// Empties what a removal clears (see NamedPlaceholder), with `restore` in the file as it was
/// saved; one that was never saved is saved first then. An empty path names no file.
bool ClearLogonValues(const std::string& path, bool restore);

/// spare: writes one value into an existing configuration file. A name that begins with '%' is a
/// placeholder in the file's text. Any other is a configuration key: the entry of that name gets
/// the value, in each section and in any letter case. Of one that a section has twice, and of
/// sections of one name, only the first is changed. Where there is no such entry, the section of
/// the file's first entry gets a new one. Nothing happens without a path or a name.
bool SetConfigValue(const std::string& path, std::string_view name, std::string_view value);
/// spare: saves a copy beside the file (".org") or, when there is one, restores the file from it.
/// The copy is a regular file with one name, no link, and belongs to the service's user or the
/// file's owner.
bool BackupOrRestoreConfigFile(const std::string& path);
/// What is wrong with the saved copy that a file has; none when nothing is, or there is none.
/// Changes nothing and holds nothing.
[[nodiscard]] std::optional<std::string> FaultOfSavedCopy(const std::string& path);

}  // namespace qixx::watch
