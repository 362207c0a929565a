#include "watch/logon_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <utility>
#include <vector>

#include "config/file.h"
#include "config/migration.h"
#include "config/scan.h"
#include "runtime/clock.h"
#include "runtime/files.h"
#include "runtime/notice.h"
#include "runtime/replace_file.h"
#include "runtime/scarce_means.h"
#include "runtime/secrets.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "watch/card_text.h"
#include "watch/edit_in_time.h"
#include "watch/file_scope.h"
#include "watch/placeholders.h"

namespace qixx::watch {
namespace {

/// What a configuration file's name gets for its saved copy.
constexpr std::string_view kSavedCopySuffix = ".org";

// --- keys of a text -----------------------------------------------------------------------------

/// Bringing a text of an older version up to date takes as long as so many walks over it, and as
/// much memory.
constexpr std::size_t kMigrationWalks = 256;

/// How often a text is walked when it is taken as a configuration. One with a zero byte may be
/// UTF-16, whose text can turn out to be old.
std::size_t WalksOfOpening(std::string_view text) {
  const bool mayBeOld = config::LooksOld(text) || text.find('\0') != std::string_view::npos;
  return mayBeOld ? kMigrationWalks : 1;
}

/// Section and key.
using EntryName = std::pair<std::string, std::string>;

/// The entries that `name` means: all of that name as they are spelled, else a new one in the
/// section of the first entry, none in a text without any. Stops at one more than kMaxSetEntries,
/// which tells the caller that there are too many.
std::vector<EntryName> FindEntries(std::string_view text, std::string_view name) {
  std::vector<EntryName> found;
  // A text can repeat the same ones for millions of lines.
  std::set<std::pair<std::string_view, std::string_view>> known;
  std::optional<std::string_view> firstSection;
  config::EntryReader entries(text);
  while (found.size() <= kMaxSetEntries) {
    const std::optional<config::EntryReader::Names> names = entries.Next();
    if (!names) break;
    if (!firstSection) firstSection = names->section;
    if (!runtime::EqualsNoCase(names->entry, name)) continue;
    const bool isNew = known.emplace(names->section, names->entry).second;
    if (isNew) found.emplace_back(names->section, names->entry);
  }
  if (found.empty() && firstSection) found.emplace_back(*firstSection, name);
  return found;
}

// --- the saved copy -----------------------------------------------------------------------------

/// Who reads the file may read the saved copy as well. Somebody could have given that name to a
/// file that they cannot read, for the service to show it to them.
bool ShowsNoMore(const struct stat& file, const struct stat& copy) {
  constexpr mode_t kReaders = S_IRGRP | S_IROTH;
  // Only root can give its copy to the file's owner; any other service has it in the group that it
  // shares with them.
  const bool isOwners =
      file.st_uid == copy.st_uid || (::geteuid() != 0 && (copy.st_mode & S_IRGRP) != 0);
  const bool isGroups = file.st_gid == copy.st_gid || (file.st_mode & S_IRGRP) == 0;
  return isOwners && isGroups ? (file.st_mode & kReaders & ~copy.st_mode) == 0
                              : (copy.st_mode & S_IROTH) != 0;
}

/// Whoever frees a file waits for all that it holds of the disk; its owner may have given it much
/// more than its text.
bool HoldsTooMuch(const struct stat& file) {
  constexpr std::uint64_t kMore = std::uint64_t{4} << 20;
  return !runtime::IsTrustedOwner(file.st_uid) &&
         runtime::DiskSize(file) > static_cast<std::uint64_t>(file.st_size) + kMore;
}

/// Why a saved copy, opened for reading, is not to be trusted; null for one that is. `file` is not
/// open when it is missing.
const char* FaultOfCopy(const runtime::FilePlace& place, const runtime::Descriptor& copy,
                        const runtime::Descriptor& file) {
  if (!copy.IsOpen()) return "a link or no readable file";
  const struct stat saved = runtime::StatusOf(copy);
  const struct stat original = runtime::StatusOf(file);
  if (saved.st_nlink != 1) return "a file with a second name";
  if (HoldsTooMuch(saved)) return "a file that holds more than its text";
  const bool isTheFiles = file.IsOpen() && saved.st_uid == original.st_uid;
  if (saved.st_uid != ::geteuid() && !isTheFiles) return "a file of somebody else";
  // A missing file is made like its copy, and whoever owns the folder as well could have done all
  // this alone, unless others may move files of theirs into it.
  const bool showsMore = file.IsOpen() && !ShowsNoMore(original, saved);
  struct stat folder {};
  const bool isFolderOwners = ::fstat(place.Folder(), &folder) == 0 &&
                              saved.st_uid == folder.st_uid &&
                              (folder.st_mode & (S_IWGRP | S_IWOTH)) == 0;
  return showsMore && !isFolderOwners ? "a file that shows too much" : nullptr;
}

/// A file server may hold a lease on the file. The system asks for it back then; who does not give
/// it loses it in the end, which a removal waits for by being tried again.
runtime::Descriptor OpenLeased(const runtime::FilePlace& place, int flags) {
  constexpr int kTries = 20;
  constexpr std::int64_t kPauseMilliseconds = 50;
  for (int left = kTries;; --left) {
    errno = 0;
    runtime::Descriptor file = place.Open(flags);
    if (file.IsOpen() || errno != EAGAIN) return file;
    if (left == 0) break;
    runtime::SleepMilliseconds(kPauseMilliseconds);
  }
  runtime::ScarceMeans::Note(EAGAIN);
  return {};
}

// --- one file -----------------------------------------------------------------------------------

/// The text of a file from the first look at it to its one replacement. After a failure nothing
/// more is done to it.
class EditedFile {
 public:
  explicit EditedFile(const std::string& path)
      : path_(path),
        shown_(runtime::MaskSecrets(path)),
        scope_(path),
        saved_(scope_.File().named.WithSuffix(kSavedCopySuffix)),
        file_(OpenLeased(scope_.File().real, O_RDWR)),
        status_(runtime::StatusOf(file_)) {}

  [[nodiscard]] bool Read();
  /// Saves the file or, when that was done before, takes the text that was saved.
  [[nodiscard]] bool SaveOrRestore();

  [[nodiscard]] bool Set(std::string_view name, std::string_view value);
  /// An absent value leaves what the text has.
  [[nodiscard]] bool SetIfPresent(std::string_view name, std::string_view value) {
    return value.empty() || Set(name, value);
  }
  [[nodiscard]] bool Fill(const NamedPlaceholder& placeholder, const std::string& value) {
    return (placeholder.key.empty() || SetIfPresent(placeholder.key, value)) &&
           SetIfPresent(placeholder.name, value);
  }
  [[nodiscard]] bool Clear() {
    return std::ranges::all_of(kNamedPlaceholders, [this](const NamedPlaceholder& placeholder) {
      return placeholder.inFiles == InFiles::kStays ||
             Set(placeholder.key.empty() ? placeholder.name : placeholder.key, "");
    });
  }

  [[nodiscard]] bool Write();
  void NotifyFailure() const { runtime::NotifyOnce("'" + shown_ + "' cannot be set: " + fault_); }

 private:
  [[nodiscard]] bool IsAllowed() const;
  [[nodiscard]] bool Save();
  [[nodiscard]] bool Restore();
  [[nodiscard]] std::optional<std::string> ReadCopy();
  [[nodiscard]] bool SetKey(std::string_view name, std::string_view value);
  [[nodiscard]] bool TakeWalks(std::size_t count) { return budget_.Take(count * text_.size()); }
  void TakeText(std::string text) {
    text_ = std::move(text);
    blocks_ = BlocksOf(text_);
    limit_ = std::min(MaxFilledText(text_.size()), runtime::kMaxFileSize);
  }

  const std::string& path_;
  const std::string shown_;  ///< the path for the trace and for people
  FileScope scope_;
  runtime::FilePlace saved_;
  runtime::Descriptor file_;       ///< not open when the file is missing or may not be changed
  runtime::Descriptor copy_;       ///< the saved one, once it was needed
  struct stat status_;             ///< as the file was when it was opened
  std::string before_;             ///< what the file holds
  std::string text_;               ///< what it is to hold
  std::size_t limit_ = 0;          ///< for `text_`
  Blocks blocks_ = Blocks::kNone;  ///< of `text_` before a value was put in
  std::string fault_;              ///< what a failure of the step at hand means
  WalkBudget budget_{kMaxWalked};
};

/// Whoever owns the folder can move a file into it that is neither theirs nor the service's.
bool EditedFile::IsAllowed() const {
  const runtime::FilePlace& place = scope_.File().real;
  if (!file_.IsOpen() || !runtime::HasOneName(file_, place)) return false;
  if (HoldsTooMuch(status_)) {
    runtime::TraceRefusal(place.Path(), "a file that holds more than its text");
    return false;
  }
  struct stat folder {};
  if (runtime::IsTrustedOwner(status_.st_uid) ||
      (::fstat(place.Folder(), &folder) == 0 &&
       (runtime::IsTrustedOwner(folder.st_uid) || folder.st_uid == status_.st_uid))) {
    return true;
  }
  runtime::TraceRefusal(place.Path(), "a file of somebody else");
  return false;
}

bool EditedFile::Read() {
  fault_ = "it is missing or may not be changed";
  std::optional<std::string> text;
  if (IsAllowed()) {
    text = runtime::ReadToEnd(file_, runtime::kMaxFileSize);
  }
  if (!text) {
    runtime::TraceWrite("Config - Open '%s' (%s)", shown_.c_str(), "w");
    runtime::TraceWrite("Config - Failed to open");
    return false;
  }
  before_ = *text;
  TakeText(std::move(*text));
  return true;
}

bool EditedFile::SaveOrRestore() {
  // A missing file is made from its saved copy, but not behind a link that leads nowhere now.
  if (scope_.File().named.IsMissing() && !saved_.IsMissing()) return Restore();
  // Read before the copy is looked for: where another service made that meanwhile, it counts.
  if (!Read()) return false;
  return saved_.IsMissing() ? Save() : Restore();
}

/// A copy that no later event could take is none now either.
bool EditedFile::Save() {
  fault_ = "no copy '.org' can be made";
  return runtime::MakeFile(saved_, text_, file_) && ReadCopy();
}

bool EditedFile::Restore() {
  std::optional<std::string> text = ReadCopy();
  if (!text) return false;
  // That of a file which an editor was writing anew, whose text would be lost now.
  if (text->empty() && !before_.empty()) return Save();
  TakeText(std::move(*text));
  return true;
}

/// Of a copy that may be trusted.
std::optional<std::string> EditedFile::ReadCopy() {
  copy_ = OpenLeased(saved_, O_RDONLY);
  const char* fault = FaultOfCopy(saved_, copy_, file_);
  std::optional<std::string> text;
  if (fault == nullptr) {
    text = runtime::ReadToEnd(copy_, runtime::kMaxFileSize);
    if (!text) fault = "a file that cannot be read";
  }
  if (fault != nullptr) {
    runtime::TraceRefusal(saved_.Path(), fault);
    fault_ = std::string("its copy '.org' is ") + fault;
    return std::nullopt;
  }
  return text;
}

bool EditedFile::Set(std::string_view name, std::string_view value) {
  fault_ = "not all of it can be set";
  const std::string clean = CleanBlockMarks(value, blocks_);
  if (name.starts_with('%') ? ReplaceAll(text_, name, clean, limit_, budget_)
                            : SetKey(name, clean)) {
    return true;
  }
  if (budget_.IsSpent()) {
    runtime::TraceWrite("Watch - '%s' is too large for all that is to be set", shown_.c_str());
  }
  runtime::TraceWrite("Watch - Failed to set '%s' in '%s'", runtime::MaskedText(name).Text(),
                      shown_.c_str());
  return false;
}

bool EditedFile::SetKey(std::string_view name, std::string_view value) {
  if (!TakeWalks(WalksOfOpening(text_))) return false;
  config::CConfigFile config;
  if (config.OpenText(path_, text_) != config::ConfigResult::kOk) return false;
  const std::vector<EntryName> entries = FindEntries(config.GetText().value_or(""), name);
  if (entries.size() > kMaxSetEntries || !TakeWalks(entries.size())) return false;
  for (const auto& [section, key] : entries) {
    if (config.SetValue(section, key, value) != config::ConfigResult::kOk) return false;
  }
  if (std::optional<std::string> text = config.ChangedText()) text_ = std::move(*text);
  return text_.size() <= limit_;
}

bool EditedFile::Write() {
  fault_ = "it cannot be written";
  if (!file_.IsOpen()) return runtime::MakeFile(scope_.File().real, text_, copy_);
  if (text_ == before_) {
    runtime::RemoveLeftOvers(scope_.File().real);
    return true;
  }
  const runtime::FilePlace& place = scope_.File().real;
  struct stat now {};
  if (::fstatat(place.Folder(), place.Name().c_str(), &now, AT_SYMLINK_NOFOLLOW) != 0 ||
      now.st_mtime != status_.st_mtime) {
    // The last writer wins.
    runtime::TraceWrite("Config - WARNING: File '%s' modified", shown_.c_str());
  }
  return runtime::ReplaceFile(place, file_, text_);
}

bool FillAll(EditedFile& file, const LogonValues& values) {
  for (const InFiles turn : {InFiles::kFilled, InFiles::kFilledLast}) {
    for (const NamedPlaceholder& placeholder : kNamedPlaceholders) {
      const bool isTurn = placeholder.inFiles == turn;
      if (isTurn && !file.Fill(placeholder, placeholder.valueOf(values))) return false;
    }
  }
  return std::ranges::all_of(SubjectPlaceholders(values.subject),
                             [&file](const SubjectPlaceholder& component) {
                               return file.Set(component.name, component.value);
                             });
}

/// What the steps make of the text becomes the file's. They own what they need: they may run later.
/// A fill is dropped when more cards have gone than at its event.
template <typename Steps>
bool Edit(const std::string& path, EditKind kind, unsigned cardsGone, Steps steps) {
  return EditInTime(path, kind, [path, kind, cardsGone, steps = std::move(steps)] {
    EditedFile file(path);
    const auto isTooLate = [=] { return kind == EditKind::kFill && CardsGone() != cardsGone; };
    const bool done = steps(file) && !isTooLate() && file.Write();
    if (!done && !isTooLate()) file.NotifyFailure();
    return done;
  });
}

}  // namespace

bool WriteLogonValues(const std::string& path, const LogonValues& values, unsigned cardsGone) {
  return Edit(path, EditKind::kFill, cardsGone,
              [values](EditedFile& file) { return file.SaveOrRestore() && FillAll(file, values); });
}

bool WriteLogonName(const std::string& path, const LogonName& name, unsigned cardsGone) {
  if (path.empty() || (name.user.empty() && name.domain.empty())) return true;
  return Edit(path, EditKind::kFill, cardsGone, [name](EditedFile& file) {
    return file.Read() && file.SetIfPresent(kUserNameKey, name.user) &&
           file.SetIfPresent(kDomainKey, name.domain);
  });
}

bool ClearLogonValues(const std::string& path, bool restore) {
  if (path.empty()) return true;
  const EditKind kind = restore ? EditKind::kRestoreAndClear : EditKind::kClear;
  return Edit(path, kind, CardsGone(), [restore](EditedFile& file) {
    return (restore ? file.SaveOrRestore() : file.Read()) && file.Clear();
  });
}

bool SetConfigValue(const std::string& path, std::string_view name, std::string_view value) {
  if (path.empty() || name.empty()) return true;
  return Edit(path, EditKind::kFill, CardsGone(),
              [name = std::string(name), value = std::string(value)](EditedFile& file) {
                return file.Read() && file.Set(name, value);
              });
}

bool BackupOrRestoreConfigFile(const std::string& path) {
  return Edit(path, EditKind::kFill, CardsGone(),
              [](EditedFile& file) { return file.SaveOrRestore(); });
}

std::optional<std::string> FaultOfSavedCopy(const std::string& path) {
  const runtime::FoundFile found = runtime::FindFile(path);
  const runtime::FilePlace saved = found.named.WithSuffix(kSavedCopySuffix);
  if (saved.IsMissing()) return std::nullopt;
  const char* const fault = FaultOfCopy(saved, saved.Open(O_RDONLY), found.real.Open(O_RDONLY));
  if (fault == nullptr) return std::nullopt;
  return fault;
}

}  // namespace qixx::watch
