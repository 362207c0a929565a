#include "runtime/replace_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <memory>

#include "runtime/clock.h"
#include "runtime/notice.h"
#include "runtime/scarce_means.h"
#include "runtime/trace.h"

namespace qixx::runtime {
namespace {

constexpr mode_t kOwnerOnly = S_IRUSR | S_IWUSR;

enum class Outcome {
  kDone,
  kRefused,  ///< the folder takes no new file, whatever it is
  kForeign,  ///< a new file cannot be as the old one is
  kFailed,
};

// --- temporary files ----------------------------------------------------------------------------

/// A file that is being made. Its name goes with it unless it was given another one.
class Temporary {
 public:
  explicit Temporary(int folder) : folder_(folder) {
    constexpr int kTries = 16;
    for (int tries = kTries; tries > 0 && !file_.IsOpen(); --tries) {
      MakeName();
      file_ = Descriptor(::openat(
          folder, name_, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kOwnerOnly));
      if (!file_.IsOpen() && errno != EEXIST) return;
      if (file_.IsOpen() && !Claim()) file_.Close();
    }
  }
  ~Temporary() {
    if (file_.IsOpen() && !renamed_) ::unlinkat(folder_, name_, 0);
  }
  Temporary(const Temporary&) = delete;
  Temporary& operator=(const Temporary&) = delete;

  [[nodiscard]] const Descriptor& File() const { return file_; }
  bool Rename(const char* name) {
    renamed_ = ::renameat(folder_, name_, folder_, name) == 0;
    return renamed_;
  }

 private:
  /// Nobody can make files of these names beforehand. Early at start, while the system has no
  /// random numbers yet, the clock has to do.
  void MakeName() {
    std::uint64_t number = 0;
    if (::getrandom(&number, sizeof number, GRND_NONBLOCK) != sizeof number) {
      number = static_cast<std::uint64_t>(MonotonicMilliseconds()) << 32 |
               static_cast<std::uint32_t>(::getpid());
    }
    std::snprintf(name_, sizeof name_, "%s%016llx", kTemporaryHead.data(),
                  static_cast<unsigned long long>(number));
  }

  /// Tells who removes left-overs that this is none. False when that came too late.
  [[nodiscard]] bool Claim() const {
    const bool held = ::flock(file_.Get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
    return held && StatusOf(file_).st_nlink != 0;
  }

  int folder_;
  Descriptor file_;
  char name_[kTemporaryHead.size() + 17] = "";
  bool renamed_ = false;
};

struct CloseFolder {
  void operator()(DIR* folder) const { ::closedir(folder); }
};

/// True when it is gone. Somebody may have given that name to a file whose end takes the disk
/// minutes.
bool RemoveLeftOver(int folder, const char* name) {
  constexpr std::uint64_t kMost = std::uint64_t{4} << 20;
  const Descriptor file(
      ::openat(folder, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  const struct stat status = StatusOf(file);
  return S_ISREG(status.st_mode) && DiskSize(status) <= kMost &&
         ::flock(file.Get(), LOCK_EX | LOCK_NB) == 0 && ::unlinkat(folder, name, 0) == 0;
}

constexpr const char* kAccessList = "system.posix_acl_access";

/// Gives a new file the access list of another one, or none as well. False when it did not take it.
bool TakeAccessList(const Descriptor& file, const Descriptor& like) {
  constexpr std::size_t kLongest = 4096;
  char list[kLongest];
  const ssize_t length = ::fgetxattr(like.Get(), kAccessList, list, sizeof list);
  if (length >= 0) {
    return ::fsetxattr(file.Get(), kAccessList, list, static_cast<std::size_t>(length), 0) == 0;
  }
  const bool tooLong = errno == ERANGE;
  // The folder may have given it one.
  static_cast<void>(::fremovexattr(file.Get(), kAccessList));
  return !tooLong;
}

/// Whether it depends on the group of a file who may read or write it.
bool GroupCounts(const Descriptor& file) {
  const mode_t mode = StatusOf(file).st_mode;
  return ((mode >> 3 ^ mode) & S_IRWXO) != 0 ||
         ::fgetxattr(file.Get(), kAccessList, nullptr, 0) >= 0;
}

enum class Rights { kKept, kFewer, kFailed };

/// Gives a new file the permissions and, where that is allowed, the owner and the group of another
/// one. A process without privileges cannot give a file away, but to any group of its own. Another
/// group, or one whose rights an access list no longer says, gets no more than everybody has.
Rights TakeOver(const Descriptor& file, const Descriptor& like) {
  constexpr auto kUnchanged = static_cast<uid_t>(-1);
  constexpr mode_t kGroup = S_IRWXG;
  const struct stat wanted = StatusOf(like);
  const bool given = ::fchown(file.Get(), wanted.st_uid, wanted.st_gid) == 0 ||
                     ::fchown(file.Get(), kUnchanged, wanted.st_gid) == 0;
  const struct stat got = StatusOf(file);
  const bool sameGroup = given || got.st_gid == wanted.st_gid;
  const bool sameList = TakeAccessList(file, like);
  mode_t mode = wanted.st_mode & ACCESSPERMS;
  if (!sameGroup || !sameList) mode &= ~kGroup | (mode & S_IRWXO) << 3;
  if (::fchmod(file.Get(), mode) != 0) return Rights::kFailed;
  const bool kept = got.st_uid == wanted.st_uid && sameList && (sameGroup || !GroupCounts(like));
  return kept ? Rights::kKept : Rights::kFewer;
}

/// Of a step on the way to the new content, right behind it: counts a full disk.
bool Noted(bool done) {
  if (!done) ScarceMeans::Note(errno);
  return done;
}

/// What the system says when it is the folder that does not want a file, or the name that cannot be
/// given away. A full disk is neither.
Outcome OutcomeOf(int error) {
  ScarceMeans::Note(error);
  const bool refused = error == EACCES || error == EPERM || error == EROFS || error == EBUSY;
  return refused ? Outcome::kRefused : Outcome::kFailed;
}

/// Whether a new file has to be like another one in all that decides who may use it.
enum class Likeness { kWhole, kAsFarAsAllowed };

Outcome PutNewFile(const FilePlace& place, std::string_view text, const Descriptor& like,
                   Likeness likeness) {
  const int folder = place.Folder();
  RemoveLeftOvers(place);
  Temporary made(folder);
  if (!made.File().IsOpen()) return OutcomeOf(errno);
  if (!Noted(WriteFully(made.File(), text))) return Outcome::kFailed;
  const Rights rights = TakeOver(made.File(), like);
  if (rights == Rights::kFewer && likeness == Likeness::kWhole) return Outcome::kForeign;
  if (rights == Rights::kFailed || !Noted(::fsync(made.File().Get()) == 0)) return Outcome::kFailed;
  if (!made.Rename(place.Name().c_str())) return OutcomeOf(errno);
  // The content is the new one now. Not every file system can write a folder on demand.
  static_cast<void>(::fsync(folder));
  return Outcome::kDone;
}

// --- in place -----------------------------------------------------------------------------------

bool WriteAt(const Descriptor& file, std::string_view text, std::size_t position) {
  const auto place = static_cast<off_t>(position);
  return Noted(::lseek(file.Get(), place, SEEK_SET) == place && WriteFully(file, text));
}

bool CutFile(const Descriptor& file, std::size_t length) {
  return ::ftruncate(file.Get(), static_cast<off_t>(length)) == 0;
}

/// Writes what comes behind the old end. Where the file system cannot take room for it beforehand,
/// only a sync finds out that the disk is full.
bool Grow(const Descriptor& file, std::string_view text, std::size_t length) {
  const bool hasRoom =
      ::fallocate(file.Get(), FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(text.size())) == 0;
  const bool isFull = !hasRoom && (errno == ENOSPC || errno == EDQUOT);
  return Noted(!isFull) && WriteAt(file, text.substr(length), length) &&
         (hasRoom || Noted(::fsync(file.Get()) == 0));
}

/// What the file grows by comes first: when there is no room it is cut back and still holds all
/// that it held. The rest is one write, which only a failing disk, or one that needs room to write
/// a block anew, leaves undone.
bool WriteInPlace(const Descriptor& file, const std::string& shown, std::string_view text) {
  const auto length = static_cast<std::size_t>(StatusOf(file).st_size);
  if (text.size() > length && !Grow(file, text, length)) {
    static_cast<void>(CutFile(file, length));
    return false;
  }
  if (WriteAt(file, text.substr(0, length), 0) &&
      (text.size() >= length || Noted(CutFile(file, text.size()))) &&
      Noted(::fsync(file.Get()) == 0)) {
    return true;
  }
  TraceWrite("Helper - '%s' may hold a part of each text", shown.c_str());
  Notify({"'", shown, "' may hold a part of its old text and a part of the new one"});
  return false;
}

/// Why the old file is to be written in place; null when it is not.
const char* WhyInPlace(Outcome outcome) {
  if (outcome == Outcome::kRefused) return "its folder takes no new file";
  if (outcome == Outcome::kForeign) return "a new file cannot have its owner and rights";
  return nullptr;
}

bool Report(const FilePlace& place, bool written) {
  if (!written) TraceWrite("Helper - Failed to write '%s'", place.Path().c_str());
  return written;
}

}  // namespace

void RemoveLeftOvers(const FilePlace& place) {
  // Somebody may have filled the folder to keep the service busy.
  constexpr int kMaxNames = 20000;
  constexpr int kMaxRemoved = 16;
  // One that is empty now may be as large as when it was full.
  constexpr off_t kMaxFolder = off_t{4} << 20;
  Descriptor opened(::openat(place.Folder(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::unique_ptr<DIR, CloseFolder> names(opened.IsOpen() ? ::fdopendir(opened.Get())
                                                                : nullptr);
  if (names == nullptr) return;
  static_cast<void>(opened.Release());
  struct stat folder {};
  if (::fstat(place.Folder(), &folder) != 0 || folder.st_size > kMaxFolder) return;
  int removed = 0;
  for (int looked = 0; looked < kMaxNames && removed < kMaxRemoved; ++looked) {
    const dirent* const entry = ::readdir(names.get());
    if (entry == nullptr) return;
    if (std::string_view(entry->d_name).starts_with(kTemporaryHead) &&
        RemoveLeftOver(place.Folder(), entry->d_name)) {
      ++removed;
    }
  }
}

bool ReplaceFile(const FilePlace& place, const Descriptor& old, std::string_view text) {
  Outcome outcome = PutNewFile(place, text, old, Likeness::kWhole);
  const char* const reason = WhyInPlace(outcome);
  if (reason != nullptr && HasOneName(old, place)) {
    TraceWrite("Helper - Write '%s' in place, %s", place.Path().c_str(), reason);
    outcome = WriteInPlace(old, place.Path(), text) ? Outcome::kDone : Outcome::kFailed;
  }
  return Report(place, outcome == Outcome::kDone);
}

bool MakeFile(const FilePlace& place, std::string_view text, const Descriptor& like) {
  return Report(place, PutNewFile(place, text, like, Likeness::kAsFarAsAllowed) == Outcome::kDone);
}

}  // namespace qixx::runtime
