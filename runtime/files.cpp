#include "runtime/files.h"

#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <memory>

#include "runtime/descriptor.h"
#include "runtime/no_destructor.h"
#include "runtime/text.h"
#include "runtime/trace.h"

namespace qixx::runtime {
namespace {

constexpr mode_t kOwnDirectory = S_IRWXU;
constexpr mode_t kPermissions = S_IRWXU | S_IRWXG | S_IRWXO;
constexpr const char* kLastResort = "/tmp/";

/// Whether a copy may take the place of `path`. An old file lends its permissions and its owner to
/// `status`; one that may not be written stays, although its directory would let it be replaced.
bool MayReplace(const std::string& path, struct stat& status) {
  struct stat old {};
  if (::lstat(path.c_str(), &old) != 0 || S_ISLNK(old.st_mode)) return true;
  const Descriptor file = OpenRegular(path, O_WRONLY);
  if (!S_ISREG(old.st_mode) || !file.IsOpen()) return false;
  status = StatusOf(file);
  return true;
}

/// Gives a new file the permissions and, where that is allowed, the owner and the group in
/// `status`. A process without privileges cannot give a file away, but to any group of its own.
/// Another group than the old one gets no more than everybody has.
bool TakeOver(const Descriptor& file, const struct stat& status) {
  constexpr auto kUnchanged = static_cast<uid_t>(-1);
  constexpr mode_t kGroup = S_IRWXG;
  mode_t mode = status.st_mode & kPermissions;
  if (::fchown(file.Get(), status.st_uid, status.st_gid) != 0 &&
      ::fchown(file.Get(), kUnchanged, status.st_gid) != 0) {
    mode &= ~kGroup | (mode & S_IRWXO) << 3;
  }
  return ::fchmod(file.Get(), mode) == 0;
}

/// Puts a new file in the place of `path`, with permissions and owner as TakeOver gives them. It
/// has another name until `write` has filled it and all of it is on the disk.
template <typename Write>
bool ReplaceFile(const std::string& path, const struct stat& status, Write write) {
  if (path.empty()) return false;
  std::string name = path + ".XXXXXX";
  Descriptor to(::mkostemp(name.data(), O_CLOEXEC));
  if (!to.IsOpen()) return false;
  const bool complete = write(to) && TakeOver(to, status) && ::fsync(to.Get()) == 0 && to.Close() &&
                        ::rename(name.c_str(), path.c_str()) == 0;
  if (!complete) ::unlink(name.c_str());
  return complete;
}

bool IsDirectory(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::string LinkTarget(const std::string& link) {
  char target[PATH_MAX];
  const ssize_t length = ::readlink(link.c_str(), target, sizeof target);
  return length > 0 ? std::string(target, static_cast<std::size_t>(length)) : std::string();
}

/// The first entry of this process's argument list, or the link to its program where the system
/// keeps one instead.
std::string ReadProgramPath() {
  const std::string process = "/proc/" + std::to_string(::getpid());
  const std::string arguments = ReadWholeFile(process + "/cmdline").value_or("");
  return arguments.empty() ? LinkTarget(process + "/path/a.out") : std::string(UpToZero(arguments));
}

}  // namespace

std::optional<std::string> GetTempDirectory() {
  std::string_view variable = ViewOf(std::getenv("TEMP"));
  if (variable.empty()) variable = ViewOf(std::getenv("TMP"));
  if (!variable.empty()) {
    std::string directory(variable);
    if (directory.back() != '/') directory.push_back('/');
    if (directory.size() <= kMaxText) return directory;
  }
  if (!PathExists(std::string(kLastResort))) return std::nullopt;
  return kLastResort;
}

bool CreatePath(const std::string& path) {
  TraceWrite("Helper - Create path '%s'", path.c_str());
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    const std::string directory = path.substr(0, slash);
    if (::mkdir(directory.c_str(), kOwnDirectory) != 0 && !IsDirectory(directory)) return false;
  }
  return true;
}

bool PathExists(const std::string& path) {
  if (path.empty()) return false;
  std::string name = path;
  if (name.size() > 1 && name.back() == '/') name.pop_back();
  struct stat status {};
  return ::stat(name.c_str(), &status) == 0;
}

std::uint64_t GetFileSize(const std::string& path) {
  const Descriptor file = OpenRegular(path, O_RDONLY);
  if (!file.IsOpen()) return 0;
  const off_t end = ::lseek(file.Get(), 0, SEEK_END);
  return end > 0 ? static_cast<std::uint64_t>(end) : 0;
}

std::optional<std::string> ReadWholeFile(const std::string& path) {
  const Descriptor file = OpenRegular(path, O_RDONLY);
  if (!file.IsOpen()) return std::nullopt;
  return ReadToEnd(file, kMaxFileSize);
}

bool WriteWholeFileSafely(const std::string& path, std::string_view data) {
  // The old file lends its permissions and its owner; one that may not be written stays.
  const Descriptor old = OpenRegular(path, O_WRONLY);
  return old.IsOpen() && ReplaceFile(path, StatusOf(old),
                                     [data](const Descriptor& to) { return WriteFully(to, data); });
}

bool CopyFileSafely(const std::string& source, const std::string& destination) {
  const Descriptor from = OpenRegular(source, O_RDONLY);
  struct stat status = StatusOf(from);
  return from.IsOpen() && MayReplace(destination, status) &&
         ReplaceFile(destination, status,
                     [&from](const Descriptor& to) { return CopyContent(from, to); });
}

std::string GetCallingApplication() {
  // Outlives the static destructors, like the trace that names it.
  static NoDestructor<std::string> known;
  if (!known->empty()) return *known;
  std::string path = ReadProgramPath();
  TraceReleaseOneLine();
  TraceWrite("Helper - Calling application: '%s'", path.c_str());
  // One that is too long is looked up again at the next question.
  if (path.size() > kMaxText) return {};
  *known = path;
  return path;
}

std::optional<std::string> GetStoredCredential(std::string_view /*name*/) {
  return std::nullopt;
}

void ResetStoredCredential(std::string_view /*name*/) {}

}  // namespace qixx::runtime
