#include "watch/card_mark.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>

#include "runtime/descriptor.h"
#include "runtime/secrets.h"
#include "runtime/text.h"
#include "runtime/trace.h"

namespace qixx::watch {
namespace {

constexpr const char* kFolderVariable = "RUNTIME_DIRECTORY";
constexpr std::string_view kHead = "card-";

/// Names of files have 255 bytes at most. A section of the longest name would take three times as
/// many.
constexpr std::size_t kMaxName = 200;

std::string FirstFolder() {
  const char* const folders = ::getenv(kFolderVariable);
  if (folders == nullptr || folders[0] != '/') return {};
  const std::string_view all(folders);
  return std::string(all.substr(0, all.find(':')));
}

/// Letters, digits, '-' and '_' as they are, each other byte as '%' and two digits.
std::string Encode(std::string_view section) {
  std::string name(kHead);
  for (const std::uint8_t byte : runtime::AsBytes(section)) {
    if ((byte < 0x80 && std::isalnum(byte) != 0) || byte == '-' || byte == '_') {
      name.push_back(static_cast<char>(byte));
    } else {
      name.append(1, '%').append(runtime::HexEncode({&byte, 1}));
    }
  }
  return name;
}

/// FNV-1a.
std::uint64_t Hash(std::string_view text) {
  std::uint64_t hash = 0xCBF29CE484222325;
  for (const std::uint8_t byte : runtime::AsBytes(text)) hash = (hash ^ byte) * 0x100000001B3;
  return hash;
}

/// A name that is too long, or of a watcher with a command of its own, ends in '~' and a hash of
/// section and command. No other name holds a '~'.
std::string NameOf(std::string_view section, std::string_view command) {
  std::string name = Encode(section);
  if (command.empty() && name.size() <= kMaxName) return name;
  name.resize(std::min(name.size(), kMaxName));
  name.push_back('~');
  const std::string all = std::string(section) + '\n' + std::string(command);
  for (std::uint64_t hash = Hash(all); hash != 0; hash >>= 4) name += "0123456789ABCDEF"[hash & 15];
  return name;
}

/// Not open for no folder.
runtime::Descriptor OpenFolder(const std::string& folder) {
  return runtime::Descriptor(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

}  // namespace

CardMark::CardMark(std::string_view section, std::string_view command)
    : folder_(FirstFolder()), name_(NameOf(section, command)) {}

void CardMark::Set() const {
  if (folder_.empty()) return;
  constexpr int kFlags = O_WRONLY | O_CREAT | O_NOFOLLOW;
  constexpr mode_t kOwnerOnly = S_IRUSR | S_IWUSR;
  errno = EEXIST;  // told of what has the name and is no file
  const runtime::Descriptor folder = OpenFolder(folder_);
  const bool isKept =
      folder.IsOpen() && runtime::OpenRegular(name_, kFlags, kOwnerOnly, folder.Get()).IsOpen();
  if (isKept) return;
  const int error = errno;
  runtime::TraceWrite("Watch - Failed to keep '%s' in '%s' (%d)", runtime::MaskedText(name_).Text(),
                      runtime::MaskedText(folder_).Text(), error);
}

void CardMark::Clear() const {
  const runtime::Descriptor folder = OpenFolder(folder_);
  if (folder.IsOpen()) ::unlinkat(folder.Get(), name_.c_str(), 0);
}

bool CardMark::IsSet() const {
  const runtime::Descriptor folder = OpenFolder(folder_);
  struct stat found = {};
  return folder.IsOpen() &&
         ::fstatat(folder.Get(), name_.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 &&
         S_ISREG(found.st_mode);
}

}  // namespace qixx::watch
