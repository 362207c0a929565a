#include "runtime/descriptor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace qixx::runtime {

bool Descriptor::Close() {
  return IsOpen() && ::close(Release()) == 0;
}

int Descriptor::Release() {
  return std::exchange(number_, -1);
}

Descriptor OpenRegular(const char* path, int flags, struct stat& status, mode_t mode) {
  if (path == nullptr) return Descriptor(-1);
  Descriptor file(::open(path, flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, mode));
  const bool regular =
      file.IsOpen() && ::fstat(file.Get(), &status) == 0 && S_ISREG(status.st_mode);
  if (!regular) file.Close();
  return file;
}

ssize_t ReadFully(const Descriptor& file, std::span<std::uint8_t> area) {
  std::size_t done = 0;
  while (done < area.size()) {
    const ssize_t got = ::read(file.Get(), area.data() + done, area.size() - done);
    if (got == 0) break;
    if (got > 0) {
      done += static_cast<std::size_t>(got);
    } else if (errno != EINTR) {
      return -1;
    }
  }
  return static_cast<ssize_t>(done);
}

bool WriteFully(const Descriptor& file, std::span<const std::uint8_t> data) {
  while (!data.empty()) {
    const ssize_t put = ::write(file.Get(), data.data(), data.size());
    if (put > 0) {
      data = data.subspan(static_cast<std::size_t>(put));
    } else if (put == 0 || errno != EINTR) {
      return false;
    }
  }
  return true;
}

}  // namespace qixx::runtime
