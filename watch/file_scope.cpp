#include "watch/file_scope.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "runtime/clock.h"
#include "runtime/no_destructor.h"
#include "runtime/text.h"

namespace qixx::watch {
namespace {

/// Never destroyed: a command on a thread of its own may write a file while the process ends.
runtime::CCritical& FileLock() {
  static runtime::NoDestructor<runtime::CCritical> lock;
  return *lock;
}

struct FreeDeleter {
  void operator()(char* memory) const { std::free(memory); }
};

/// Not open when the folder cannot be opened.
runtime::Descriptor LockFolder(const std::string& file) {
  constexpr int kTries = 200;
  constexpr std::int64_t kPauseMilliseconds = 10;
  const std::string path = ResolveLinks(file);
  const std::size_t slash = runtime::FindCharBack(path, '/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  runtime::Descriptor locked(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (int tries = kTries; tries > 0 && locked.IsOpen(); --tries) {
    if (::flock(locked.Get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK) break;
    runtime::SleepMilliseconds(kPauseMilliseconds);
  }
  return locked;
}

}  // namespace

std::string ResolveLinks(const std::string& path) {
  const std::unique_ptr<char, FreeDeleter> resolved(::realpath(path.c_str(), nullptr));
  if (resolved != nullptr) return resolved.get();
  char ignored = 0;
  return ::readlink(path.c_str(), &ignored, 1) < 0 ? path : std::string();
}

FileScope::FileScope(const std::string& file) : hold_(&FileLock()), folder_(LockFolder(file)) {}

FileScope::~FileScope() {
  // A process that was forked meanwhile may have the descriptor too.
  if (folder_.IsOpen()) ::flock(folder_.Get(), LOCK_UN);
}

}  // namespace qixx::watch
