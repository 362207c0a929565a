// File descriptors, and reading and writing regular files through them.
//
// No call blocks in an open. All functions may be called from any thread; a Descriptor belongs to
// one at a time. Only std::bad_alloc is thrown.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace qixx::runtime {

/// A file descriptor that closes itself; negative for none.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() { Close(); }
  Descriptor(Descriptor&& other) noexcept : number_(other.Release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    const Descriptor old(std::exchange(number_, other.Release()));
    return *this;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  [[nodiscard]] bool IsOpen() const { return number_ >= 0; }
  [[nodiscard]] int Get() const { return number_; }
  /// False when the system reports a write that failed late, and when none is open.
  bool Close() { return IsOpen() && ::close(Release()) == 0; }
  /// Hands the descriptor over to the caller, who closes it from now on.
  [[nodiscard]] int Release() { return std::exchange(number_, -1); }

 private:
  int number_ = -1;
};

/// Opens a regular file and nothing else, close-on-exec. What has the name is looked at before, so
/// no pipe or device is opened; one that is put there in between is not waited for, and closed
/// again. `mode` is for a file that O_CREAT makes; a relative path begins at `folder`. Not open on
/// any failure; errno then says why, unless what has the name is no regular file.
[[nodiscard]] Descriptor OpenRegular(const std::string& path, int flags, mode_t mode = 0,
                                     int folder = AT_FDCWD);
/// What the system knows of an open file; all zero when there is none.
[[nodiscard]] struct stat StatusOf(const Descriptor& file);
/// What a file holds of the disk in bytes, also behind its end: whoever frees it waits for that.
[[nodiscard]] inline std::uint64_t DiskSize(const struct stat& file) {
  constexpr std::uint64_t kBlock = 512;
  return std::max(static_cast<std::uint64_t>(file.st_size),
                  static_cast<std::uint64_t>(file.st_blocks) * kBlock);
}
/// Whether what has this number now is still what `known` was told of: somebody may have closed a
/// descriptor that is not theirs, and opened another file in its place. May be called by a signal
/// handler.
[[nodiscard]] bool IsStill(const struct stat& known, int descriptor);

/// All that can be read from here to the end of the file. Nothing after an error, and when there is
/// more than `maxLength`.
[[nodiscard]] std::optional<std::string> ReadToEnd(const Descriptor& file, std::size_t maxLength);
/// False when not all could be written.
bool WriteFully(const Descriptor& file, std::string_view data);
/// spare: writes the whole rest of `from` over `to` and cuts `to` to what was written, so that a
/// file copied onto itself stays as it is. False when it is not complete.
bool CopyContent(const Descriptor& from, const Descriptor& to);

}  // namespace qixx::runtime
