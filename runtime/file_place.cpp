#include "runtime/file_place.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <utility>

#include "runtime/secrets.h"
#include "runtime/trace.h"

namespace qixx::runtime {
namespace {

/// As many as the system follows in one path.
constexpr int kMaxLinks = 40;

class PathWalk {
 public:
  explicit PathWalk(const std::string& path) : shown_(MaskSecrets(path)), rest_(path) {}

  FoundFile Find() {
    FoundFile found;
    if (!EnterFolders()) return {{}, {}, refusal_};
    found.named = found.real = Place();
    for (;;) {
      const std::string name = std::exchange(rest_, {});
      const Step step = FollowLink(name);
      if (step == Step::kNoLink) return found;
      if (step == Step::kRefused || !EnterFolders()) return {found.named, {}, refusal_};
      found.real = Place();
    }
  }

 private:
  enum class Step { kFollowed, kNoLink, kRefused };

  [[nodiscard]] int Folder() const { return folder_.IsOpen() ? folder_.Get() : AT_FDCWD; }

  /// The folder is opened anew, since one that is only passed through need not be readable.
  FilePlace Place() {
    Descriptor readable(::openat(Folder(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!readable.IsOpen()) {
      readable = Descriptor(::openat(Folder(), ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    }
    if (!readable.IsOpen() || rest_.empty()) return {};
    return {std::make_shared<const Descriptor>(std::move(readable)), rest_, shown_};
  }

  /// Leaves the last name in `rest_`.
  bool EnterFolders() {
    for (;;) {
      EnterRoot();
      const std::size_t slash = rest_.find('/');
      if (slash == std::string::npos) return !rest_.empty();
      const std::string name = rest_.substr(0, slash);
      DropSlashes(slash);
      if (!EnterFolder(name)) return false;
    }
  }

  void EnterRoot() {
    if (!rest_.starts_with('/')) return;
    folder_ = Descriptor(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    DropSlashes(0);
  }

  /// Drops the rest's text in front of `from`, and the slashes there.
  void DropSlashes(std::size_t from) {
    rest_.erase(0, std::min(rest_.find_first_not_of('/', from), rest_.size()));
  }

  bool EnterFolder(const std::string& name) {
    Descriptor next(
        ::openat(Folder(), name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!next.IsOpen()) return FollowLink(name) == Step::kFollowed;
    folder_ = std::move(next);
    return true;
  }

  /// Puts the target of a link in front of the rest.
  Step FollowLink(const std::string& name) {
    const Descriptor link(::openat(Folder(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    const struct stat status = StatusOf(link);
    if (!S_ISLNK(status.st_mode)) return Step::kNoLink;
    if (!IsTrustedOwner(status.st_uid)) return Refuse("a link of somebody else");
    char buffer[PATH_MAX];
    const ssize_t length = ::readlinkat(link.Get(), "", buffer, sizeof buffer);
    if (length <= 0) return Step::kRefused;
    const std::string_view target(buffer, static_cast<std::size_t>(length));
    // It stands for something open without a name: "pipe:[4711]" behind "/dev/stderr".
    if (target.find(":[") != target.npos && IsInProc(link.Get())) return Step::kNoLink;
    if (++links_ > kMaxLinks) return Refuse("a path through too many links");
    if (!rest_.empty()) rest_.insert(0, 1, '/');
    rest_.insert(0, target);
    return Step::kFollowed;
  }

  Step Refuse(const char* reason) {
    TraceRefusal(shown_, reason);
    refusal_ = reason;
    return Step::kRefused;
  }

  const std::string shown_;
  Descriptor folder_;  ///< not open while it is the current one
  std::string rest_;   ///< still to be walked, from there
  int links_ = 0;
  const char* refusal_ = nullptr;
};

}  // namespace

FilePlace::FilePlace(std::shared_ptr<const Descriptor> folder, std::string name, std::string path)
    : folder_(std::move(folder)), name_(std::move(name)), path_(std::move(path)) {}

int FilePlace::Folder() const {
  return folder_ == nullptr ? -1 : folder_->Get();
}

FilePlace FilePlace::WithSuffix(std::string_view suffix) const {
  return {folder_, std::string(name_).append(suffix), std::string(path_).append(suffix)};
}

bool FilePlace::IsMissing() const {
  struct stat status {};
  return folder_ != nullptr &&
         ::fstatat(Folder(), name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT;
}

Descriptor FilePlace::Open(int flags, mode_t mode) const {
  return OpenRegular(name_, flags | O_NOFOLLOW, mode, Folder());
}

bool IsTrustedOwner(uid_t owner) {
  return owner == 0 || owner == ::geteuid();
}

bool IsInProc(int file) {
  struct statfs system {};
  return ::fstatfs(file, &system) == 0 && system.f_type == PROC_SUPER_MAGIC;
}

FoundFile FindFile(const std::string& path) {
  return PathWalk(path).Find();
}

void TraceRefusal(const std::string& path, const char* reason) {
  TraceWrite("Helper - Refused '%s', %s", path.c_str(), reason);
}

bool HasOneName(const Descriptor& file, const FilePlace& place) {
  const nlink_t names = StatusOf(file).st_nlink;
  if (names == 1) return true;
  TraceRefusal(place.Path(), names == 0 ? "a file that was removed" : "a file with a second name");
  return false;
}

}  // namespace qixx::runtime
