// Small files and their lines, read without trust in what they hold.
//
// All names are relative to an open folder, so that a folder renamed in between stays one and the
// same. Descriptors are close-on-exec, and a pipe or device in place of a file is not waited for.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qixx::softcard {

/// A file above this many bytes counts as unreadable.
inline constexpr std::size_t kMaxFileSize = 65536;
/// No more names than this are taken from one folder.
inline constexpr std::size_t kMaxNames = 4096;

/// An owned file descriptor; -1 for none.
class Descriptor {
 public:
  explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
  ~Descriptor();
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  [[nodiscard]] int Get() const { return descriptor_; }
  [[nodiscard]] bool IsOpen() const { return descriptor_ >= 0; }

 private:
  const int descriptor_;
};

/// Opens a folder for the functions below; -1 when there is none.
[[nodiscard]] int OpenFolder(const std::string& path);
/// The whole content of a regular file, links followed; nothing when it cannot be read or is above
/// kMaxFileSize.
[[nodiscard]] std::optional<std::string> ReadSmallFile(int folder, const std::string& name);
/// Puts a file with this content in place in one step. Returns 0 or the system's error number.
[[nodiscard]] int ReplaceFile(int folder, const std::string& name, std::string_view content);
/// The names in the folder, hidden ones left out, in byte order.
[[nodiscard]] std::vector<std::string> ListNames(int folder);

struct Setting {
  std::string name;
  std::string value;

  bool operator==(const Setting&) const = default;
};
/// The lines "name=value" in their order, nothing trimmed but a carriage return at the end. Lines
/// that begin with "#" and lines without a name are passed over.
[[nodiscard]] std::vector<Setting> ReadSettings(std::string_view text);

/// A whole text as a number, hexadecimal behind "0x"; nothing for any other text.
[[nodiscard]] std::optional<unsigned long> ReadNumber(std::string_view text);

}  // namespace qixx::softcard
