#include "runtime/files.h"

#include <fcntl.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "runtime/descriptor.h"
#include "runtime/loader.h"
#include "runtime/text.h"
#include "runtime/trace.h"

namespace qixx::runtime {
namespace {

constexpr std::size_t kReadStep = 65536;
constexpr std::size_t kCopyBlock = 256;
constexpr std::size_t kTempNameSize = 64;
constexpr std::size_t kVariableNameLimit = 98;
/// A value that names its own variable would be expanded for ever.
constexpr int kMaximumReplacements = 256;
constexpr mode_t kOwnDirectory = S_IRWXU;
constexpr mode_t kNewFile = S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH;
constexpr mode_t kPermissions = S_IRWXU | S_IRWXG | S_IRWXO;
constexpr const char* kLastResort = "/tmp/";
constexpr const char* kSystemNameFile = "/etc/issue.net";

constexpr ProductIdentity kNoIdentity;
constexpr ProductIdentity kIdentity{.prefix = "qix",
                                    .name = "Tessaly",
                                    .mainLibrary = "libqix.so",
                                    .pkcs11Library = "libqixp11.so",
                                    .mainProgram = "qix",
                                    .configFile = "qix.conf"};
constinit const ProductIdentity* identity = &kNoIdentity;

/// Empty until the first question.
constinit char callingApplication[kTextSize] = "";

/// Writes the whole of `from` over `to` and cuts `to` to what was written, so that a file copied
/// onto itself stays as it is.
bool CopyContent(const Descriptor& from, const Descriptor& to) {
  std::array<std::uint8_t, kCopyBlock> block;
  off_t copied = 0;
  ssize_t got = 0;
  while ((got = ReadFully(from, block)) > 0) {
    if (!WriteFully(to, std::span(block).first(static_cast<std::size_t>(got)))) break;
    copied += got;
  }
  return ::ftruncate(to.Get(), copied) == 0 && got == 0;
}

/// Enlarges a buffer that holds `used` bytes; false when memory runs out.
bool Grow(std::unique_ptr<std::uint8_t[]>& buffer, std::size_t used, std::size_t capacity) {
  std::unique_ptr<std::uint8_t[]> larger(new (std::nothrow) std::uint8_t[capacity]);
  if (larger == nullptr) return false;
  std::copy_n(buffer.get(), used, larger.get());
  buffer = std::move(larger);
  return true;
}

std::string_view Variable(const char* name) {
  return ViewOf(std::getenv(name));
}

void ClearArea(std::span<char> area) {
  if (!area.empty()) area[0] = '\0';
}

/// Fills the area with both texts one behind the other, or empties it when they do not fit.
bool JoinIfFits(std::span<char> area, std::string_view first, std::string_view second) {
  if (first.size() + second.size() >= area.size()) {
    ClearArea(area);
    return false;
  }
  CopyTextCut(area, first);
  CopyTextCut(area.subspan(first.size()), second);
  return true;
}

/// Whether a copy may take the place of `path`. An old file lends its permissions and its owner to
/// `status`; one that may not be written stays, although its directory would let it be replaced.
bool MayReplace(const char* path, struct stat& status) {
  struct stat old {};
  if (::lstat(path, &old) != 0 || S_ISLNK(old.st_mode)) return true;
  return S_ISREG(old.st_mode) && OpenRegular(path, O_WRONLY, status).IsOpen();
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
bool ReplaceFile(const char* path, const struct stat& status, Write write) {
  constexpr std::string_view kPattern = ".XXXXXX";
  char name[PATH_MAX];
  if (ViewOf(path).empty() || !JoinIfFits(name, path, kPattern)) return false;
  Descriptor to(::mkostemp(name, O_CLOEXEC));
  if (!to.IsOpen()) return false;
  const bool complete = write(to) && TakeOver(to, status) && ::fsync(to.Get()) == 0 && to.Close() &&
                        ::rename(name, path) == 0;
  if (!complete) ::unlink(name);
  return complete;
}

bool IsDirectory(const char* path) {
  struct stat status {};
  return ::stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

/// Copies a path into an area, since the system calls want a terminator where we may need to cut.
bool CopyPath(const char* path, std::span<char> area) {
  return path != nullptr && CopyTextIfFits(area, path);
}

/// The first entry of a process's argument list, or the link to its program where the system keeps
/// one instead.
std::string ReadProgramPath(int processId) {
  char place[kTempNameSize];
  std::snprintf(place, sizeof place, "/proc/%d/cmdline", processId);
  std::uint8_t* data = nullptr;
  const std::size_t length = ReadWholeFile(place, data);
  const std::unique_ptr<std::uint8_t[]> owned(data);
  if (length != 0) {
    return std::string(TextOf(std::span(reinterpret_cast<const char*>(data), length)));
  }
  char target[PATH_MAX];
  std::snprintf(place, sizeof place, "/proc/%d/path/a.out", processId);
  const ssize_t linked = ::readlink(place, target, sizeof target);
  return linked > 0 ? std::string(target, static_cast<std::size_t>(linked)) : std::string();
}

/// Looks the program up, and keeps its path when it fits.
std::string FindCallingApplication() {
  std::string path = ReadProgramPath(static_cast<int>(::getpid()));
  TraceReleaseOneLine();
  TraceWrite("Helper - Calling application: '%s'", path.c_str());
  // Nothing to do for a path that is too long: it is looked up again at the next question.
  (void)CopyTextIfFits(callingApplication, path);
  return path;
}

/// A placeholder of configured paths; these two spellings are all that is recognised.
struct Placeholder {
  const char* mixed;
  const char* capitals;
};
constexpr Placeholder kCurrent{"%Current%", "%CURRENT%"};
constexpr Placeholder kInstallLocation{"%InstallLocation%", "%INSTALLLOCATION%"};

bool Holds(std::span<const char> text, const Placeholder& placeholder) {
  return FindText(TextOf(text), placeholder.mixed) != std::string_view::npos ||
         FindText(TextOf(text), placeholder.capitals) != std::string_view::npos;
}

void Replace(std::span<char> text, const Placeholder& placeholder, const char* value) {
  ReplaceAll(text, placeholder.mixed, value);
  ReplaceAll(text, placeholder.capitals, value);
}

void PutInFront(std::span<char> text, std::string_view head) {
  const std::size_t length = TextOf(text).size();
  if (head.size() + length >= text.size()) return;
  std::memmove(text.data() + head.size(), text.data(), length);
  std::copy(head.begin(), head.end(), text.begin());
  text[head.size() + length] = '\0';
}

/// Makes one of every run of the character.
void CollapseRuns(std::span<char> text, char c) {
  const std::size_t length = TextOf(text).size();
  char* const end = std::unique(text.data(), text.data() + length,
                                [c](char a, char b) { return a == c && b == c; });
  if (end != text.data() + text.size()) *end = '\0';
}

/// Replaces the first %NAME% of the text. False when there is none, or no room for the value.
bool ExpandFirstVariable(std::span<char> text) {
  const std::string_view content = TextOf(text);
  const std::size_t begin = FindChar(content, '%');
  if (begin == std::string_view::npos) return false;
  const std::size_t end = content.find('%', begin + 1);
  if (end == std::string_view::npos) return false;
  const std::size_t length = end - begin - 1;
  if (length >= kVariableNameLimit) return false;

  char name[kVariableNameLimit];
  CopyTextCut(name, content.substr(begin + 1, length));
  const std::string_view value = Variable(name);
  const std::size_t token = length + 2;
  if (value.size() > token && content.size() - token + value.size() >= text.size()) return false;

  char* const place = text.data() + begin;
  const std::size_t rest = content.size() - end - 1;
  std::memmove(place + value.size(), place + token, rest);
  std::copy(value.begin(), value.end(), place);
  if (begin + value.size() + rest < text.size()) place[value.size() + rest] = '\0';
  return true;
}

/// "Debian GNU/Linux 12.4.1" becomes "Debian GNU/Linux 12.4".
std::string_view CutAtSecondDot(std::string_view text) {
  const std::size_t first = FindChar(text, '.');
  if (first == std::string_view::npos) return text;
  return text.substr(0, text.find('.', first + 1));
}

/// The name that the distribution shows before a remote login; a line end is no part of it.
bool ReadDistributionName(std::span<char> area) {
  std::uint8_t* data = nullptr;
  const std::size_t length = ReadWholeFile(kSystemNameFile, data);
  const std::unique_ptr<std::uint8_t[]> owned(data);
  if (length == 0) return false;
  std::string_view text = TextOf(std::span(reinterpret_cast<const char*>(data), length));
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) {
    text.remove_suffix(1);
  }
  // A text that does not fit as a whole is no name, even if it would once it is cut.
  return !text.empty() && text.size() < area.size() && CopyTextIfFits(area, CutAtSecondDot(text));
}

bool ReadKernelName(std::span<char> area) {
  struct utsname system {};
  if (::uname(&system) != 0) return false;
  char text[sizeof system.sysname + sizeof system.release];
  std::snprintf(text, sizeof text, "%s %s", system.sysname, system.release);
  return CopyTextIfFits(area, text);
}

}  // namespace

void InitProductIdentity() {
  identity = &kIdentity;
}

const ProductIdentity& Product() {
  return *identity;
}

std::size_t GetTempDirectory(std::span<char> area) {
  std::string_view directory = Variable("TEMP");
  if (directory.empty()) directory = Variable("TMP");
  if (!directory.empty() && JoinIfFits(area, directory, directory.back() == '/' ? "" : "/")) {
    return TextOf(area).size();
  }
  if (!PathExists(kLastResort) || !JoinIfFits(area, kLastResort, "")) ClearArea(area);
  return TextOf(area).size();
}

bool MakeTempFileName(const char* name, std::span<char> area) {
  char fileName[kTempNameSize];
  const int length = std::snprintf(fileName, sizeof fileName, "~%s%s%.4u.txt", Product().prefix,
                                   name == nullptr ? "" : name, static_cast<unsigned>(::getpid()));
  if (length < 0 || static_cast<std::size_t>(length) >= sizeof fileName) return false;
  char directory[kTextSize];
  if (GetTempDirectory(directory) == 0) return false;
  if (TextOf(directory).size() + static_cast<std::size_t>(length) >= area.size()) return false;
  return JoinIfFits(area, TextOf(directory), fileName);
}

bool CreatePath(const char* path) {
  TraceWrite("Helper - Create path '%s'", path);
  char directory[PATH_MAX];
  if (!CopyPath(path, directory)) return false;
  if (directory[0] == '\0') return true;
  for (char* slash = std::strchr(directory + 1, '/'); slash != nullptr;
       slash = std::strchr(slash + 1, '/')) {
    *slash = '\0';
    const bool made = ::mkdir(directory, kOwnDirectory) == 0 || IsDirectory(directory);
    *slash = '/';
    if (!made) return false;
  }
  return true;
}

bool DeleteFile(const char* path) {
  TraceWrite("Helper - Delete file '%s'", path);
  return path != nullptr && ::unlink(path) == 0;
}

bool CopyFile(const char* source, const char* destination) {
  struct stat status {};
  const Descriptor from = OpenRegular(source, O_RDONLY, status);
  if (!from.IsOpen()) return false;
  // A new copy of a private file must not be open to more eyes than the file.
  const mode_t mode = (status.st_mode & kNewFile) | S_IRUSR | S_IWUSR;
  const Descriptor to = OpenRegular(destination, O_WRONLY | O_CREAT, status, mode);
  if (!to.IsOpen()) return false;
  CopyContent(from, to);
  return true;
}

bool CopyFileSafely(const char* source, const char* destination) {
  struct stat status {};
  const Descriptor from = OpenRegular(source, O_RDONLY, status);
  return from.IsOpen() && MayReplace(destination, status) &&
         ReplaceFile(destination, status,
                     [&from](const Descriptor& to) { return CopyContent(from, to); });
}

bool PathExists(const char* path) {
  char name[PATH_MAX];
  if (!CopyPath(path, name) || name[0] == '\0') return false;
  const std::size_t length = TextOf(name).size();
  if (length > 1 && name[length - 1] == '/') name[length - 1] = '\0';
  struct stat status {};
  return ::stat(name, &status) == 0;
}

std::size_t GetFileSize(const char* path) {
  struct stat status {};
  const Descriptor file = OpenRegular(path, O_RDONLY, status);
  if (!file.IsOpen()) return 0;
  const off_t end = ::lseek(file.Get(), 0, SEEK_END);
  return end > 0 ? static_cast<std::size_t>(end) : 0;
}

std::size_t ReadWholeFile(const char* path, std::uint8_t*& data) {
  data = nullptr;
  struct stat status {};
  const Descriptor file = OpenRegular(path, O_RDONLY, status);
  if (!file.IsOpen()) return 0;
  const auto reported = static_cast<std::size_t>(status.st_size);
  if (reported > kMaximumFileSize) return 0;

  // The first step takes in the reported size, and one read more shows the end of the file. What
  // has no size (a file of /proc) or grows meanwhile is followed step by step.
  std::unique_ptr<std::uint8_t[]> buffer;
  std::size_t used = 0;
  std::size_t step = reported / kReadStep * kReadStep + kReadStep;
  for (;;) {
    if (!Grow(buffer, used, used + step)) return 0;
    const ssize_t got = ReadFully(file, std::span(buffer.get() + used, step));
    if (got < 0) return 0;
    used += static_cast<std::size_t>(got);
    if (used > kMaximumFileSize) return 0;
    if (static_cast<std::size_t>(got) < step) break;
    step = kReadStep;
  }
  if (used != 0) data = buffer.release();
  return used;
}

bool WriteWholeFile(std::span<const std::uint8_t> data, const char* path) {
  struct stat status {};
  const Descriptor file = OpenRegular(path, O_WRONLY | O_CREAT | O_TRUNC, status, kNewFile);
  if (!file.IsOpen()) return false;
  WriteFully(file, data);
  return true;
}

bool WriteWholeFileSafely(std::span<const std::uint8_t> data, const char* path) {
  struct stat status {};
  // The old file lends its permissions and its owner; one that may not be written stays.
  return OpenRegular(path, O_WRONLY, status).IsOpen() &&
         ReplaceFile(path, status, [data](const Descriptor& to) { return WriteFully(to, data); });
}

bool GetCallingApplication(std::span<char> area) {
  try {
    std::string path(TextOf(callingApplication));
    if (path.empty()) path = FindCallingApplication();
    return JoinIfFits(area, path, "") && !path.empty();
  } catch (const std::bad_alloc&) {
    ClearArea(area);
    return false;
  }
}

bool GetCurrentDirectory(std::span<char> area) {
  char application[kTextSize];
  ClearArea(area);
  if (!GetCallingApplication(application)) return false;
  const std::string_view path = TextOf(application);
  const std::size_t slash = FindCharBack(path, '/');
  return slash != std::string_view::npos && JoinIfFits(area, path.substr(0, slash + 1), "");
}

bool ExpandPath(std::span<char> text, bool prefixInstall) {
  if (FindText(TextOf(text), "://") != std::string_view::npos) return true;
  // Both values are asked for only where they are needed, because the configuration may be read for
  // the second one.
  if (Holds(text, kCurrent)) {
    char directory[kTextSize];
    GetCurrentDirectory(directory);
    Replace(text, kCurrent, directory);
  }
  if (Holds(text, kInstallLocation)) Replace(text, kInstallLocation, InstallDirectory());
  if (prefixInstall && FindChar(TextOf(text), '/') == std::string_view::npos) {
    PutInFront(text, InstallDirectory());
  }
  CollapseRuns(text, '\\');
  CollapseRuns(text, '/');
  return !TextOf(text).empty();
}

bool ExpandEnvironment(std::span<char> text) {
  int replacements = 0;
  while (replacements < kMaximumReplacements && ExpandFirstVariable(text)) ++replacements;
  return replacements > 0;
}

bool GetSystemName(std::span<char> area) {
  return ReadDistributionName(area) || ReadKernelName(area) || CopyTextIfFits(area, "Unknown");
}

bool GetStoredCredential(const char* /*name*/, std::span<char> /*area*/) {
  return false;
}

void ResetStoredCredential(const char* /*name*/) {}

}  // namespace qixx::runtime
