// File descriptors, and reading and writing regular files through them.
//
// Nothing is thrown, and no call blocks in an open. All functions may be called from any thread; a
// Descriptor belongs to one at a time.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <span>

namespace qixx::runtime {

/// A file descriptor that closes itself; negative for none.
class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() { Close(); }
  Descriptor(Descriptor&& other) noexcept : number_(other.Release()) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  Descriptor& operator=(Descriptor&&) = delete;

  [[nodiscard]] bool IsOpen() const { return number_ >= 0; }
  [[nodiscard]] int Get() const { return number_; }
  /// False when the system reports a write that failed late, and when none is open.
  bool Close();

 private:
  int Release();
  int number_;
};

/// Opens a regular file and nothing else, close-on-exec, and fills `status`. A pipe or a device is
/// not waited for, nor touched further. `mode` is for a file that O_CREAT makes. Not open on any
/// failure; a null path is one.
[[nodiscard]] Descriptor OpenRegular(const char* path, int flags, struct stat& status,
                                     mode_t mode = 0);
/// Reads until `area` is full or the file ends. Returns the count, negative after an error.
[[nodiscard]] ssize_t ReadFully(const Descriptor& file, std::span<std::uint8_t> area);
/// False when not all could be written.
bool WriteFully(const Descriptor& file, std::span<const std::uint8_t> data);

}  // namespace qixx::runtime
