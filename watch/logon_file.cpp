#include "watch/logon_file.h"

#include <sys/stat.h>

#include <cerrno>
#include <initializer_list>
#include <optional>
#include <set>
#include <utility>

#include "config/store.h"
#include "runtime/files.h"
#include "runtime/text.h"
#include "watch/file_scope.h"
#include "watch/placeholders.h"

namespace qixx::watch {
namespace {

/// What a configuration file's name gets for its saved copy.
constexpr std::string_view kSavedCopySuffix = ".org";

/// Whether nothing has that name for certain. A saved copy that only cannot be reached now must not
/// be made anew: the file holds a card's values by then.
bool IsMissing(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) != 0 && errno == ENOENT;
}

// --- one value, in a file that is held ----------------------------------------------------------

/// Replaces a placeholder in the text of the file. A file that cannot be read, or does not hold the
/// placeholder, is left alone.
void SetPlaceholder(const std::string& file, std::string_view name, std::string_view value) {
  const std::optional<std::string> before = runtime::ReadWholeFile(file);
  if (!before) return;
  const std::optional<std::string> after =
      ReplacePlaceholder(*before, name, value, runtime::kMaxFileSize);
  if (!after || *after == *before) return;
  // A failure leaves the old text whole, and there is nobody to tell.
  static_cast<void>(runtime::WriteWholeFileSafely(ResolveLinks(file), *after));
}

/// Each takes a walk over the file, which an endless one must not repeat for ever.
constexpr std::size_t kMaxEntries = 1000;

/// Section and key.
using EntryName = std::pair<std::string, std::string>;

/// The entries that `name` means: all of that name as they are spelled, else a new one in the
/// section of the first entry, none in a file without any.
std::set<EntryName> FindEntries(config::CConfig& config, std::string_view name) {
  std::set<EntryName> found;
  std::optional<std::string> firstSection;
  for (std::size_t index = 0; found.size() < kMaxEntries;) {
    const std::optional<config::ConfigEntry> entry = config.EnumEntries(index);
    if (!entry) break;
    if (!firstSection) firstSection = entry->section;
    if (runtime::EqualsNoCase(entry->entry, name)) found.emplace(entry->section, entry->entry);
  }
  if (found.empty() && firstSection) found.emplace(*firstSection, name);
  return found;
}

void SetKey(const std::string& file, std::string_view name, std::string_view value) {
  // Opening a missing file for writing would make an empty one.
  if (!runtime::PathExists(file)) return;
  config::CConfig config;
  if (config.OpenItem(true, file) != config::ConfigResult::kOk) return;
  for (const auto& [section, key] : FindEntries(config, name)) {
    config.SetString(section, key, value);
  }
  config.Close(true);
}

void SetValue(const std::string& file, std::string_view name, std::string_view value) {
  if (name.starts_with('%')) {
    SetPlaceholder(file, name, value);
  } else {
    SetKey(file, name, value);
  }
}

/// Writes a value under all of its names; an absent value leaves the file's own.
void SetIfPresent(const std::string& file, std::initializer_list<std::string_view> names,
                  std::string_view value) {
  if (value.empty()) return;
  for (const std::string_view name : names) SetValue(file, name, value);
}

void ClearValues(const std::string& file) {
  for (const std::string_view name :
       {kUserNameKey, kDomainKey, kSubjectPlaceholder, kSerialPlaceholder}) {
    SetValue(file, name, "");
  }
}

// --- the saved copy of a file that is held ------------------------------------------------------

bool BackupOrRestore(const std::string& file) {
  const std::string saved = file + std::string(kSavedCopySuffix);
  const bool save = IsMissing(saved);
  const std::string& source = save ? file : saved;
  if (runtime::GetFileSize(source) > runtime::kMaxFileSize) return false;
  return runtime::CopyFileSafely(source, save ? saved : ResolveLinks(file));
}

}  // namespace

void WriteLogonValues(const std::string& file, const LogonValues& values) {
  if (file.empty()) return;
  const FileScope hold(file);
  BackupOrRestore(file);
  const LogonName name = SplitPrincipalName(values.upn);
  SetIfPresent(file, {kUserNameKey, kUserNamePlaceholder}, name.user);
  SetIfPresent(file, {kDomainKey, kDomainPlaceholder}, name.domain);
  SetIfPresent(file, {kSerialPlaceholder}, values.serial);
  SetIfPresent(file, {kSubjectPlaceholder}, values.subject);
  for (const SubjectPlaceholder& component : SubjectPlaceholders(values.subject)) {
    SetValue(file, component.name, component.value);
  }
}

void WriteLogonName(const std::string& file, const LogonName& name) {
  if (file.empty()) return;
  const FileScope hold(file);
  SetIfPresent(file, {kUserNameKey}, name.user);
  SetIfPresent(file, {kDomainKey}, name.domain);
}

void ClearLogonValues(const std::string& file) {
  if (file.empty()) return;
  const FileScope hold(file);
  ClearValues(file);
}

void RestoreAndClear(const std::string& file) {
  if (file.empty()) return;
  const FileScope hold(file);
  BackupOrRestore(file);
  ClearValues(file);
}

void SetConfigValue(const std::string& file, std::string_view name, std::string_view value) {
  if (file.empty() || name.empty()) return;
  const FileScope hold(file);
  SetValue(file, name, value);
}

bool BackupOrRestoreConfigFile(const std::string& file) {
  if (file.empty()) return false;
  const FileScope hold(file);
  return BackupOrRestore(file);
}

}  // namespace qixx::watch
