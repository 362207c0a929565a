#include "runtime/sync.h"

#include <algorithm>
#include <memory>

#include "runtime/clock.h"
#include "runtime/scarce_means.h"
#include "runtime/spare_sync.h"
#include "runtime/thread_library.h"
#include "runtime/trace.h"

namespace qixx::runtime {
namespace {

// --- mutexes ----------------------------------------------------------------------------------

/// Room for a platform mutex; never less than the 40 bytes of the common 64-bit layout.
struct MutexRoom {
  alignas(pthread_mutex_t) unsigned char bytes[std::max<std::size_t>(40, sizeof(pthread_mutex_t))];
};

pthread_mutex_t* PlatformMutex(void* mutex) {
  return static_cast<pthread_mutex_t*>(mutex);
}

constexpr std::int64_t kLockPause = 100;  // milliseconds
constexpr std::uint64_t kLockTriesPerSecond = 10;

// Sections are made before the static constructors have run and used after the static destructors.
constinit std::atomic<std::uint64_t> liveSections{0};

std::uint32_t PlatformResult(int error) {
  return error == 0 ? kSyncOk : kSyncSystemFailure;
}

std::uint32_t CreatePlatformMutex(void*& mutex) {
  if (Threads().mutexInit == nullptr) return kSyncSystemFailure;
  auto room = std::make_unique<MutexRoom>();
  if (Threads().mutexInit(PlatformMutex(room.get()), nullptr) != 0) return kSyncSystemFailure;
  mutex = room.release();
  return kSyncOk;
}

std::uint32_t DestroyPlatformMutex(void* mutex) {
  if (Threads().mutexDestroy == nullptr) return kSyncSystemFailure;
  if (Threads().mutexDestroy(PlatformMutex(mutex)) != 0) return kSyncSystemFailure;
  delete static_cast<MutexRoom*>(mutex);
  return kSyncOk;
}

std::uint32_t TryLockFor(std::uint32_t seconds, decltype(&::pthread_mutex_trylock) tryLock,
                         pthread_mutex_t* mutex) {
  for (std::uint64_t tries = seconds * kLockTriesPerSecond; tries != 0; --tries) {
    if (tryLock(mutex) == 0) return kSyncOk;
    SleepMilliseconds(kLockPause);
  }
  return kSyncSystemFailure;
}

std::uint32_t LockPlatformMutex(void* mutex) {
  const std::uint32_t seconds = LockTimeout();
  if (const auto tryLock = Threads().mutexTryLock; seconds != 0 && tryLock != nullptr) {
    return TryLockFor(seconds, tryLock, PlatformMutex(mutex));
  }
  if (Threads().mutexLock == nullptr) return kSyncSystemFailure;
  return PlatformResult(Threads().mutexLock(PlatformMutex(mutex)));
}

std::uint32_t UnlockPlatformMutex(void* mutex) {
  if (Threads().mutexUnlock == nullptr) return kSyncSystemFailure;
  return PlatformResult(Threads().mutexUnlock(PlatformMutex(mutex)));
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
  if (mutex_ != nullptr) return kSyncGeneralError;
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

std::uint32_t CCritical::Lock() {
  return MutexHooks().lock != nullptr ? MutexHooks().lock(mutex_) : LockPlatformMutex(mutex_);
}

std::uint32_t CCritical::Enter() {
  const ThreadId caller = ThreadSelf();
  if (mutex_ == nullptr) return kSyncGeneralError;
  const std::uint64_t count = count_.load(std::memory_order_relaxed);
  if (owner_.load(std::memory_order_relaxed) == caller && count != 0) {
    count_.store(count + 1, std::memory_order_relaxed);
    return kSyncOk;
  }
  const std::uint32_t result = Lock();
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
  return MutexHooks().unlock != nullptr ? MutexHooks().unlock(mutex_) : UnlockPlatformMutex(mutex_);
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
