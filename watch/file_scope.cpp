#include "watch/file_scope.h"

#include <sys/file.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

#include "runtime/clock.h"
#include "runtime/no_destructor.h"
#include "runtime/trace.h"

namespace qixx::watch {
namespace {

constexpr std::int64_t kPatienceMilliseconds = 2000;
std::atomic<std::int64_t> patience{kPatienceMilliseconds};

/// Never destroyed: a command on a thread of its own may write a file while the process ends.
runtime::CCritical& FileLock() {
  static runtime::NoDestructor<runtime::CCritical> lock;
  return *lock;
}

/// False while somebody else holds the folder.
bool TryLock(const runtime::FilePlace& place) {
  return ::flock(place.Folder(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

void LockFolder(const runtime::FilePlace& place) {
  constexpr std::int64_t kPauseMilliseconds = 10;
  while (!TryLock(place)) {
    if (patience <= 0) {
      runtime::TraceWrite("Watch - The folder of '%s' is locked, going on", place.Path().c_str());
      return;
    }
    const std::int64_t begin = runtime::MonotonicMilliseconds();
    runtime::SleepMilliseconds(kPauseMilliseconds);
    patience -= runtime::MonotonicMilliseconds() - begin;
  }
}

}  // namespace

FileScope::FileScope(const std::string& path) : hold_(&FileLock()), file_(runtime::FindFile(path)) {
  LockFolder(file_.real);
}

FileScope::~FileScope() {
  // A process that was forked meanwhile may have the descriptor too.
  ::flock(file_.real.Folder(), LOCK_UN);
}

void FileScope::BeginEvent() {
  patience = kPatienceMilliseconds;
}

}  // namespace qixx::watch
