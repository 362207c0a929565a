#include "watch/file_scope.h"

#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <list>

#include "runtime/clock.h"
#include "runtime/no_destructor.h"
#include "runtime/sync.h"
#include "runtime/trace.h"

namespace qixx::watch {

/// The one thread that writes into a folder, and those that wait for it.
struct FolderQueue {
  struct stat folder {};
  unsigned threads = 0;
  runtime::CCritical lock;
};

namespace {

constexpr std::int64_t kPatienceMilliseconds = 2000;
std::atomic<std::int64_t> patience{kPatienceMilliseconds};

struct FolderQueues {
  runtime::CCritical lock;
  std::list<FolderQueue> all;
};

/// Never destroyed: a command on a thread of its own may write a file while the process ends.
FolderQueues& Queues() {
  static runtime::NoDestructor<FolderQueues> queues;
  return *queues;
}

/// Files of folders that cannot be opened have one queue.
FolderQueue& Join(const runtime::FilePlace& place) {
  struct stat folder {};
  if (::fstat(place.Folder(), &folder) != 0) folder = {};
  const runtime::CriticalScope hold(&Queues().lock);
  std::list<FolderQueue>& all = Queues().all;
  auto queue = std::ranges::find_if(all, [&folder](const FolderQueue& other) {
    return other.folder.st_dev == folder.st_dev && other.folder.st_ino == folder.st_ino;
  });
  if (queue == all.end()) {
    queue = all.emplace(queue);
    queue->folder = folder;
  }
  ++queue->threads;
  return *queue;
}

void Leave(FolderQueue& queue) {
  const runtime::CriticalScope hold(&Queues().lock);
  if (--queue.threads != 0) return;
  std::erase_if(Queues().all, [&queue](const FolderQueue& other) { return &other == &queue; });
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

FileScope::FileScope(const std::string& path)
    : file_(runtime::FindFile(path)), queue_(Join(file_.real)) {
  queue_.lock.Enter();
  LockFolder(file_.real);
}

FileScope::~FileScope() {
  // A process that was forked meanwhile may have the descriptor too.
  ::flock(file_.real.Folder(), LOCK_UN);
  queue_.lock.Leave();
  Leave(queue_);
}

void FileScope::BeginEvent() {
  patience = kPatienceMilliseconds;
}

}  // namespace qixx::watch
