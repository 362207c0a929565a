#include "watch/set_command.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <initializer_list>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "config/store.h"
#include "runtime/descriptor.h"
#include "runtime/files.h"
#include "runtime/lasting.h"
#include "runtime/sync.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "watch/credentials.h"
#include "watch/options.h"

namespace qixx::watch {
namespace {

/// What a configuration file's name gets for its saved copy.
constexpr const char* kSavedCopySuffix = ".org";

/// Reading, changing and writing a file is one step. In static storage and never destroyed, like
/// all that a command on a thread of its own may use while the process ends.
runtime::CCritical& FileLock() {
  static runtime::Lasting<runtime::CCritical> lock;
  return *lock;
}

struct FreeDeleter {
  void operator()(char* memory) const { std::free(memory); }
};

/// The file behind symbolic links: it is the one to replace, and the link stays. A path that leads
/// nowhere yet is its own answer; for a link that leads nowhere, as while a network is away, there
/// is none.
std::string ResolveLinks(const std::string& path) {
  const std::unique_ptr<char, FreeDeleter> resolved(::realpath(path.c_str(), nullptr));
  if (resolved != nullptr) return resolved.get();
  char ignored = 0;
  return ::readlink(path.c_str(), &ignored, 1) < 0 ? path : std::string();
}

/// Whether nothing has that name for certain. A saved copy that only cannot be reached now must not
/// be made anew: the file holds a card's values by then.
bool IsMissing(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) != 0 && errno == ENOENT;
}

// --- one writer at a time ---------------------------------------------------------------------

/// Locks the folder of a file against other services: extra watchers answer the same event, often
/// with the same file. The folder, because the file itself is replaced. Whoever holds the lock for
/// too long, and a file system without locks, is not waited for.
runtime::Descriptor LockFolder(const char* file) try {
  constexpr int kTries = 200;
  constexpr unsigned kPause = 10'000;  // microseconds
  const std::string path = ResolveLinks(std::string(runtime::ViewOf(file)));
  const std::size_t slash = runtime::FindCharBack(path, '/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  runtime::Descriptor locked(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (int tries = kTries; tries > 0 && locked.IsOpen(); --tries) {
    if (::flock(locked.Get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK) break;
    ::usleep(kPause);
  }
  return locked;
} catch (const std::bad_alloc&) {
  return runtime::Descriptor(-1);
}

/// Belongs to the file lock.
constinit unsigned fileScopes = 0;

/// Holds a file for a scope, against other threads and other services. Scopes of one file may be
/// nested.
class FileScope {
 public:
  explicit FileScope(const char* file)
      : hold_(&FileLock()),
        folder_(fileScopes++ == 0 ? LockFolder(file) : runtime::Descriptor(-1)) {}
  ~FileScope() {
    // A process that was forked meanwhile may have the descriptor too.
    if (folder_.IsOpen()) ::flock(folder_.Get(), LOCK_UN);
    --fileScopes;
  }
  FileScope(const FileScope&) = delete;
  FileScope& operator=(const FileScope&) = delete;

 private:
  runtime::CriticalScope hold_;
  runtime::Descriptor folder_;
};

// --- placeholders in a file's text ------------------------------------------------------------

/// Replaces every occurrence of `name` in one pass over the text. Gives up once the result is
/// longer than `limit`.
std::string Replaced(std::string_view text, std::string_view name, std::string_view value,
                     bool anyCase, std::size_t limit) {
  if (name.empty()) return std::string(text);
  // A value that brings no beginning of the name along, or makes the text shorter, uses the
  // occurrences up, so those that come about around it may count as well.
  const bool again =
      value.find(name.front()) == std::string_view::npos || value.size() < name.size();
  std::string result;
  std::string pending;      // to be read in front of the rest of the text, last character first
  std::size_t settled = 0;  // what no occurrence may reach back into
  const auto endsInName = [&] {
    if (result.size() < settled + name.size()) return false;
    const std::string_view tail = std::string_view(result).substr(result.size() - name.size());
    return anyCase ? runtime::EqualsNoCase(tail, name) : tail == name;
  };
  for (std::size_t next = 0; next < text.size() && result.size() <= limit; ++next) {
    pending.push_back(text[next]);
    while (!pending.empty()) {
      result.push_back(pending.back());
      pending.pop_back();
      if (!endsInName()) continue;
      result.resize(result.size() - name.size());
      if (again) {
        pending.append(value.rbegin(), value.rend());
      } else {
        result.append(value);
        settled = result.size();
      }
    }
  }
  return result;
}

/// Replaces a placeholder in the text of the file. A file that cannot be read, or does not hold the
/// placeholder, is left alone.
void SetPlaceholder(const char* file, std::string_view name, std::string_view value) {
  std::uint8_t* data = nullptr;
  const std::size_t length = runtime::ReadWholeFile(file, data);
  const std::unique_ptr<std::uint8_t[]> owned(data);
  if (length == 0) return;

  const std::string_view before(reinterpret_cast<const char*>(data), length);
  // The keys of a subject are written in either case, by certificates and by administrators.
  const bool anyCase = runtime::StartsWithNoCase(name, kComponentPrefix);
  const std::string after = Replaced(before, name, value, anyCase, runtime::kMaximumFileSize);
  if (after == before || after.size() > runtime::kMaximumFileSize) return;
  const std::span bytes(reinterpret_cast<const std::uint8_t*>(after.data()), after.size());
  // A failure leaves the old text whole, and there is nobody to tell.
  static_cast<void>(runtime::WriteWholeFileSafely(bytes, ResolveLinks(file).c_str()));
}

// --- configuration keys -----------------------------------------------------------------------

/// Section and key.
using Entry = std::pair<std::string, std::string>;

/// Each takes a walk over the file, which an endless one must not repeat for ever.
constexpr std::size_t kMaximumEntries = 1000;

/// The entries that `name` means: all of that name as they are spelled, else a new one in the
/// section of the first entry, none in a file without any.
std::set<Entry> FindEntries(config::CConfig& config, std::string_view name) {
  std::set<Entry> found;
  std::optional<std::string> firstSection;
  char section[runtime::kTextSize];
  char key[runtime::kTextSize];
  for (std::size_t index = 0; found.size() < kMaximumEntries &&
                              config.EnumEntries(section, key, index) == config::kConfigOk;) {
    if (!firstSection) firstSection = section;
    if (runtime::EqualsNoCase(key, name)) found.insert({section, key});
  }
  if (found.empty() && firstSection) found.insert({*firstSection, std::string(name)});
  return found;
}

void SetKey(const char* file, std::string_view name, std::string_view value) {
  // Opening a missing file for writing would make an empty one.
  if (!runtime::PathExists(file)) return;
  config::CConfig config;
  if (config.OpenItem(true, file) != config::kConfigOk) return;
  const std::string text(value);
  for (const auto& [section, key] : FindEntries(config, name)) {
    config.SetString(section.c_str(), key.c_str(), text.c_str(), true);
  }
  config.Close(true);
}

// --- the set command --------------------------------------------------------------------------

/// The options of a set command, each empty when it is absent.
struct SetOptions {
  char match[runtime::kTextSize] = "";
  char registry[runtime::kTextSize] = "";
  char config[runtime::kTextSize] = "";

  explicit SetOptions(std::string_view text) {
    GetOptionValue(text, "-match", match);
    GetOptionValue(text, "-registry", registry);
    GetOptionValue(text, "-config", config);
  }
};

/// Writes a value under all of its names; an absent value leaves the file's own.
void WriteIfPresent(const char* file, std::initializer_list<std::string_view> names,
                    std::string_view value) {
  if (value.empty()) return;
  for (const std::string_view name : names) SetConfigValue(file, name, value);
}

void WriteLogonValues(const char* file, const LogonValues& values) {
  BackupOrRestoreConfigFile(file);
  const LogonName name = SplitPrincipalName(runtime::TextOf(values.upn));
  WriteIfPresent(file, {kUserNameKey, kUserNamePlaceholder}, name.user);
  WriteIfPresent(file, {kDomainKey, kDomainPlaceholder}, name.domain);
  WriteIfPresent(file, {kSerialPlaceholder}, runtime::TextOf(values.serial));
  WriteIfPresent(file, {kSubjectPlaceholder}, runtime::TextOf(values.subject));
  for (const SubjectPlaceholder& placeholder :
       SubjectPlaceholders(runtime::TextOf(values.subject))) {
    SetConfigValue(file, placeholder.name, placeholder.value);
  }
}

bool SetOnInsert(CK_SLOT_ID slot, const SetOptions& options) {
  if (slot == 0) return false;
  LogonValues values;
  std::uint64_t certificate = slot;
  if (!FindLogonCredential(runtime::TextOf(options.match), certificate, values.upn, values.subject,
                           values.serial)) {
    return false;
  }
  runtime::TraceWrite("Watch - Logon credential: '%s'", values.upn);
  runtime::TraceWrite("Watch - Logon subject:    '%s'", values.subject);
  if (options.config[0] == '\0') return options.registry[0] != '\0';
  const FileScope hold(options.config);
  WriteLogonValues(options.config, values);
  return true;
}

bool SetOnRemove(const SetOptions& options) {
  if (options.config[0] == '\0') return options.registry[0] != '\0';
  ClearLogonValues(options.config);
  return true;
}

bool SetOnEvent(CK_SLOT_ID slot, std::string_view text, bool insert) try {
  const SetOptions options(text);
  return insert ? SetOnInsert(slot, options) : SetOnRemove(options);
} catch (const std::bad_alloc&) {
  return false;
}

void AppendOption(std::string& text, std::string_view option, std::string_view value) {
  if (value.empty()) return;
  text.append(option).append(" \"").append(value).append("\" ");
}

}  // namespace

void ReplaceAll(std::string& text, std::string_view name, std::string_view value) {
  text = Replaced(text, name, value, false, std::string::npos);
}

void SetConfigValue(const char* file, std::string_view name, std::string_view value) {
  if (runtime::ViewOf(file).empty() || name.empty()) return;
  const FileScope hold(file);
  try {
    if (name.starts_with('%')) {
      SetPlaceholder(file, name, value);
    } else {
      SetKey(file, name, value);
    }
  } catch (const std::exception&) {
    // Out of memory, or a text beyond all lengths: the file stays as it is.
  }
}

void ClearLogonValues(const char* file) {
  const FileScope hold(file);
  for (const std::string_view name :
       {kUserNameKey, kDomainKey, kSubjectPlaceholder, kSerialPlaceholder}) {
    SetConfigValue(file, name, "");
  }
}

void WriteLogonName(const char* file, std::string_view user, std::string_view domain) {
  const FileScope hold(file);
  WriteIfPresent(file, {kUserNameKey}, user);
  WriteIfPresent(file, {kDomainKey}, domain);
}

void RestoreAndClear(const char* file) {
  const FileScope hold(file);
  BackupOrRestoreConfigFile(file);
  ClearLogonValues(file);
}

bool BackupOrRestoreConfigFile(const char* file) try {
  if (runtime::ViewOf(file).empty()) return false;
  const FileScope hold(file);
  const std::string saved = std::string(file) + kSavedCopySuffix;
  const bool save = IsMissing(saved);
  const char* const source = save ? file : saved.c_str();
  if (runtime::GetFileSize(source) > runtime::kMaximumFileSize) return false;
  return runtime::CopyFileSafely(source, save ? saved.c_str() : ResolveLinks(file).c_str());
} catch (const std::bad_alloc&) {
  return false;
}

bool SetCommand(CK_SLOT_ID slot, std::string_view text, bool insert) {
  runtime::TraceWrite("Watch - Set command ...");
  const bool success = SetOnEvent(slot, text, insert);
  runtime::TraceWrite("Watch - Set command ... %s", success ? "OK" : "FAILED");
  return success;
}

bool RunSetCommand(CK_SLOT_ID slot, std::string_view match, std::string_view registry,
                   std::string_view configFile, bool insert) try {
  std::string text;
  AppendOption(text, "-match", match);
  AppendOption(text, "-registry", registry);
  AppendOption(text, "-config", configFile);
  return !text.empty() && SetCommand(slot, text, insert);
} catch (const std::bad_alloc&) {
  return false;
}

}  // namespace qixx::watch
