#include "runtime/sync.h"

#include <memory>

#include "runtime/clock.h"
#include "runtime/scarce_means.h"
#include "runtime/spare_sync.h"
#include "runtime/thread_library.h"
#include "runtime/trace.h"

namespace qixx::runtime {
namespace {

// --- mutexes ----------------------------------------------------------------------------------

/// As much as the suite gives a mutex; the platform's may be smaller.
union MutexRoom {
  pthread_mutex_t mutex;
  unsigned char room[40];
};

pthread_mutex_t* PlatformMutex(void* mutex) {
  return &static_cast<MutexRoom*>(mutex)->mutex;
}

constexpr std::int64_t kLockPause = 100;  // milliseconds
constexpr std::uint64_t kLockTriesPerSecond = 10;

// Sections are made before the static constructors have run and used after the static destructors.
constinit std::atomic<std::uint64_t> liveSections{0};

/// Calls a function of the platform's that may be missing.
template <typename Function, typename... Arguments>
std::uint32_t Call(Function* function, Arguments... arguments) {
  return function != nullptr && function(arguments...) == 0 ? kSyncOk : kSyncSystemFailure;
}

std::uint32_t CreatePlatformMutex(void*& mutex) {
  auto room = std::make_unique<MutexRoom>();
  const std::uint32_t result = Call(Threads().mutexInit, &room->mutex, nullptr);
  if (result == kSyncOk) mutex = room.release();
  return result;
}

std::uint32_t DestroyPlatformMutex(void* mutex) {
  const std::uint32_t result = Call(Threads().mutexDestroy, PlatformMutex(mutex));
  if (result == kSyncOk) delete static_cast<MutexRoom*>(mutex);
  return result;
}

std::uint32_t LockPlatformMutex(void* mutex) {
  std::uint64_t tries = LockTimeout() * kLockTriesPerSecond;
  if (tries == 0 || Threads().mutexTryLock == nullptr) {
    return Call(Threads().mutexLock, PlatformMutex(mutex));
  }
  for (; tries != 0; --tries) {
    if (Threads().mutexTryLock(PlatformMutex(mutex)) == 0) return kSyncOk;
    SleepMilliseconds(kLockPause);
  }
  return kSyncSystemFailure;
}

}  // namespace

// --- critical sections ------------------------------------------------------------------------

CCritical::CCritical() {
  Initialise();
}

CCritical::~CCritical() {
  Destroy();
}

std::uint32_t CCritical::Initialise() {
  if (initialised_) return kSyncOk;
  initialised_ = true;
  owner_.store(0, std::memory_order_relaxed);
  count_.store(0, std::memory_order_relaxed);
  liveSections.fetch_add(1, std::memory_order_relaxed);
  return MutexHooks().create != nullptr ? MutexHooks().create(&mutex_)
                                        : CreatePlatformMutex(mutex_);
}

std::uint32_t CCritical::Destroy() {
  if (!initialised_) return kSyncOk;
  std::uint32_t result = kSyncGeneralError;
  if (mutex_ != nullptr) {
    result = MutexHooks().destroy != nullptr ? MutexHooks().destroy(mutex_)
                                             : DestroyPlatformMutex(mutex_);
  }
  mutex_ = nullptr;
  initialised_ = false;
  liveSections.fetch_sub(1, std::memory_order_relaxed);
  return result;
}

std::uint32_t CCritical::Enter() {
  const ThreadId caller = ThreadSelf();
  if (mutex_ == nullptr) return kSyncGeneralError;
  const std::uint64_t count = count_.load(std::memory_order_relaxed);
  if (owner_.load(std::memory_order_relaxed) == caller && count != 0) {
    count_.store(count + 1, std::memory_order_relaxed);
    return kSyncOk;
  }
  const std::uint32_t result =
      MutexHooks().lock != nullptr ? MutexHooks().lock(mutex_) : LockPlatformMutex(mutex_);
  // Recorded after a failed lock too: callers ignore the result, and their Leave has to match.
  owner_.store(caller, std::memory_order_relaxed);
  count_.store(1, std::memory_order_relaxed);
  return result;
}

std::uint32_t CCritical::Leave() {
  if (mutex_ == nullptr || owner_.load(std::memory_order_relaxed) != ThreadSelf()) {
    return kSyncGeneralError;
  }
  const std::uint64_t count = count_.load(std::memory_order_relaxed);
  if (count == 0) return kSyncGeneralError;
  if (count > 1) {
    count_.store(count - 1, std::memory_order_relaxed);
    return kSyncOk;
  }
  owner_.store(0, std::memory_order_relaxed);
  count_.store(0, std::memory_order_relaxed);
  return MutexHooks().unlock != nullptr ? MutexHooks().unlock(mutex_)
                                        : Call(Threads().mutexUnlock, PlatformMutex(mutex_));
}

bool CCritical::IsHeldByOtherThread() const {
  const ThreadId owner = owner_.load(std::memory_order_relaxed);
  return owner != 0 && owner != ThreadSelf();
}

std::uint64_t CCritical::LiveCount() {
  return liveSections.load(std::memory_order_relaxed);
}

// --- threads ----------------------------------------------------------------------------------

ThreadId ThreadCreate(ThreadFunction function, void* argument) {
  if (Threads().create == nullptr) {
    TraceWrite("Thread - Failed to load create thread from posix library");
    return 0;
  }
  pthread_t thread = 0;
  const int error = Threads().create(&thread, nullptr, function, argument);
  ScarceMeans::Note(error);
  return error == 0 ? thread : 0;
}

void ThreadDetachSelf() {
  if (Threads().detach != nullptr && Threads().self != nullptr) Threads().detach(Threads().self());
}

ThreadId ThreadSelf() {
  return Threads().self != nullptr ? Threads().self() : 0;
}

}  // namespace qixx::runtime
