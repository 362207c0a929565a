#include "runtime/descriptor.h"

#include <cerrno>

namespace qixx::runtime {
namespace {

constexpr std::size_t kReadStep = 65536;
constexpr std::size_t kCopyBlock = 256;

/// Reads until the buffer is full or the file ends. Returns the count, negative after an error.
ssize_t ReadFully(const Descriptor& file, char* buffer, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t got = ::read(file.Get(), buffer + done, size - done);
    if (got == 0) break;
    if (got > 0) {
      done += static_cast<std::size_t>(got);
    } else if (errno != EINTR) {
      return -1;
    }
  }
  return static_cast<ssize_t>(done);
}

}  // namespace

Descriptor OpenRegular(const std::string& path, int flags, mode_t mode, int folder) {
  // A device may act when it is merely opened: a tape rewinds, a watchdog starts to count.
  struct stat named {};
  const int links = (flags & O_NOFOLLOW) != 0 ? AT_SYMLINK_NOFOLLOW : 0;
  const bool isThere = ::fstatat(folder, path.c_str(), &named, links) == 0;
  if (isThere && !S_ISREG(named.st_mode)) return {};
  Descriptor file(::openat(folder, path.c_str(), flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, mode));
  if (!S_ISREG(StatusOf(file).st_mode)) file.Close();
  return file;
}

struct stat StatusOf(const Descriptor& file) {
  struct stat status {};
  if (!file.IsOpen() || ::fstat(file.Get(), &status) != 0) status = {};
  return status;
}

bool IsStill(const struct stat& known, int descriptor) {
  struct stat now {};
  return ::fstat(descriptor, &now) == 0 && now.st_dev == known.st_dev && now.st_ino == known.st_ino;
}

std::optional<std::string> ReadToEnd(const Descriptor& file, std::size_t maxLength) {
  const auto reported = static_cast<std::size_t>(StatusOf(file).st_size);
  if (reported > maxLength) return std::nullopt;
  // The first step asks for one byte more than is reported, which shows the end of the file. What
  // has no size (a file of /proc) or grows meanwhile is followed step by step.
  std::string content;
  std::size_t step = reported == 0 ? kReadStep : reported + 1;
  for (;;) {
    const std::size_t used = content.size();
    content.resize(used + step);
    const ssize_t got = ReadFully(file, content.data() + used, step);
    if (got < 0) return std::nullopt;
    content.resize(used + static_cast<std::size_t>(got));
    if (content.size() > maxLength) return std::nullopt;
    if (static_cast<std::size_t>(got) < step) return content;
    step = kReadStep;
  }
}

bool WriteFully(const Descriptor& file, std::string_view data) {
  while (!data.empty()) {
    const ssize_t put = ::write(file.Get(), data.data(), data.size());
    if (put > 0) {
      data.remove_prefix(static_cast<std::size_t>(put));
    } else if (put == 0 || errno != EINTR) {
      return false;
    }
  }
  return true;
}

bool CopyContent(const Descriptor& from, const Descriptor& to) {
  char block[kCopyBlock];
  off_t copied = 0;
  ssize_t got = 0;
  while ((got = ReadFully(from, block, sizeof block)) > 0) {
    if (!WriteFully(to, {block, static_cast<std::size_t>(got)})) break;
    copied += got;
  }
  return ::ftruncate(to.Get(), copied) == 0 && got == 0;
}

}  // namespace qixx::runtime
