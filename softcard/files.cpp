#include "softcard/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <memory>

namespace qixx::softcard {
namespace {

struct CloseFolder {
  void operator()(DIR* folder) const { ::closedir(folder); }
};

bool WriteAll(int file, std::string_view content) {
  while (!content.empty()) {
    const ssize_t written = ::write(file, content.data(), content.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    content.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace

Descriptor::~Descriptor() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

int OpenFolder(const std::string& path) {
  return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

std::optional<std::string> ReadSmallFile(int folder, const std::string& name) {
  const Descriptor file(
      ::openat(folder, name.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat facts = {};
  if (!file.IsOpen() || ::fstat(file.Get(), &facts) != 0 || !S_ISREG(facts.st_mode)) return {};

  std::string content(kMaxFileSize + 1, '\0');  // one more, to notice a file that is too long
  std::size_t length = 0;
  while (length < content.size()) {
    const ssize_t got = ::read(file.Get(), content.data() + length, content.size() - length);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return {};
    if (got == 0) break;
    length += static_cast<std::size_t>(got);
  }
  if (length > kMaxFileSize) return {};
  content.resize(length);
  content.shrink_to_fit();
  return content;
}

int ReplaceFile(int folder, const std::string& name, std::string_view content) {
  const std::string fresh = "." + name + "." + std::to_string(::getpid());
  const Descriptor file(
      ::openat(folder, fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666));
  if (!file.IsOpen()) return errno;
  if (WriteAll(file.Get(), content) &&
      ::renameat(folder, fresh.c_str(), folder, name.c_str()) == 0) {
    return 0;
  }
  const int error = errno != 0 ? errno : EIO;
  ::unlinkat(folder, fresh.c_str(), 0);
  return error;
}

std::vector<std::string> ListNames(int folder) {
  std::vector<std::string> names;
  const int own = ::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const std::unique_ptr<DIR, CloseFolder> entries(own < 0 ? nullptr : ::fdopendir(own));
  if (entries == nullptr) {
    if (own >= 0) ::close(own);
    return names;
  }
  while (names.size() < kMaxNames) {
    const dirent* const entry = ::readdir(entries.get());
    if (entry == nullptr) break;
    if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<Setting> ReadSettings(std::string_view text) {
  std::vector<Setting> settings;
  while (!text.empty()) {
    std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    if (line.ends_with('\r')) line.remove_suffix(1);
    const std::size_t equals = line.find('=');
    if (equals == 0 || equals == std::string_view::npos || line.front() == '#') continue;
    settings.push_back({std::string(line.substr(0, equals)), std::string(line.substr(equals + 1))});
  }
  return settings;
}

std::optional<unsigned long> ReadNumber(std::string_view text) {
  int base = 10;
  if (text.starts_with("0x") || text.starts_with("0X")) {
    base = 16;
    text.remove_prefix(2);
  }
  unsigned long number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number, base);
  if (text.empty() || error != std::errc() || stop != end) return {};
  return number;
}

}  // namespace qixx::softcard
