#include "runtime/sync.h"

#include <dlfcn.h>
#include <pthread.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <limits>
#include <memory>
#include <new>

#include "runtime/trace.h"

#if defined(__SANITIZE_THREAD__)
#define QIXX_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define QIXX_THREAD_SANITIZER 1
#endif
#endif

namespace qixx::runtime {
namespace {

// --- the threads library ----------------------------------------------------------------------

/// Opens the threads library, null when there is none.
void* OpenThreadsLibrary() {
#if defined(QIXX_THREAD_SANITIZER)
  // The sanitizer must see every thread and lock, and its replacements stand in the global scope.
  return RTLD_DEFAULT;
#else
  // The plain name comes with development files only, the versioned one with every system.
  for (const char* name : {"libpthread.so", "libpthread.so.0"}) {
    if (void* library = ::dlopen(name, RTLD_NOW | RTLD_GLOBAL); library != nullptr) return library;
  }
  return nullptr;
#endif
}

constexpr bool HasThreadsLibrary([[maybe_unused]] const void* library) {
#if defined(QIXX_THREAD_SANITIZER)
  return true;
#else
  return library != nullptr;
#endif
}

/// The functions of the library; one that is not found stays null.
struct ThreadLibrary {
  decltype(&::pthread_mutex_init) mutexInit = nullptr;
  decltype(&::pthread_mutex_destroy) mutexDestroy = nullptr;
  decltype(&::pthread_mutex_lock) mutexLock = nullptr;
  decltype(&::pthread_mutex_trylock) mutexTryLock = nullptr;
  decltype(&::pthread_mutex_unlock) mutexUnlock = nullptr;
  decltype(&::pthread_create) create = nullptr;
  decltype(&::pthread_kill) kill = nullptr;
  decltype(&::pthread_self) self = nullptr;
  decltype(&::pthread_detach) detach = nullptr;
};

template <typename Function>
void Find(void* library, const char* name, Function& function) {
  function = reinterpret_cast<Function>(::dlsym(library, name));
}

ThreadLibrary LoadThreadLibrary() {
  ThreadLibrary functions;
  void* library = OpenThreadsLibrary();
  if (!HasThreadsLibrary(library)) return functions;
  Find(library, "pthread_mutex_init", functions.mutexInit);
  Find(library, "pthread_mutex_destroy", functions.mutexDestroy);
  Find(library, "pthread_mutex_lock", functions.mutexLock);
  Find(library, "pthread_mutex_trylock", functions.mutexTryLock);
  Find(library, "pthread_mutex_unlock", functions.mutexUnlock);
  Find(library, "pthread_create", functions.create);
  Find(library, "pthread_kill", functions.kill);
  Find(library, "pthread_self", functions.self);
  Find(library, "pthread_detach", functions.detach);
  return functions;
}

/// Loaded on first need, tried once whatever comes of it, and never unloaded.
const ThreadLibrary& Threads() {
  static const ThreadLibrary functions = LoadThreadLibrary();
  return functions;
}

// --- mutexes ----------------------------------------------------------------------------------

/// Room for a platform mutex; never less than the 40 bytes of the common 64-bit layout.
struct MutexArea {
  alignas(pthread_mutex_t) unsigned char bytes[std::max<std::size_t>(40, sizeof(pthread_mutex_t))];
};

pthread_mutex_t* PlatformMutex(void* mutex) {
  return static_cast<pthread_mutex_t*>(mutex);
}

/// This platform brings mutexes of its own, so a caller need not hand any in.
constexpr bool kInternalLockingPossible = true;

constexpr timespec kLockPause = {0, 100'000'000};
constexpr std::uint64_t kLockTriesPerSecond = 10;

// Constant-initialised and trivially destructible: sections are used before the static
// constructors have run and after the static destructors.
constinit ExternalMutexHooks externalHooks;
constinit std::atomic<std::uint64_t> liveSections{0};
constinit std::atomic<std::uint32_t> lockTimeoutSeconds{0};

std::uint32_t PlatformResult(int error) {
  return error == 0 ? kSyncOk : kSyncSystemFailure;
}

std::uint32_t CreatePlatformMutex(void*& mutex) {
  std::unique_ptr<MutexArea> area(new (std::nothrow) MutexArea{});
  if (!area || Threads().mutexInit == nullptr) return kSyncSystemFailure;
  if (Threads().mutexInit(PlatformMutex(area.get()), nullptr) != 0) return kSyncSystemFailure;
  mutex = area.release();
  return kSyncOk;
}

std::uint32_t DestroyPlatformMutex(void* mutex) {
  if (Threads().mutexDestroy == nullptr) return kSyncSystemFailure;
  if (Threads().mutexDestroy(PlatformMutex(mutex)) != 0) return kSyncSystemFailure;
  delete static_cast<MutexArea*>(mutex);
  return kSyncOk;
}

std::uint32_t TryLockFor(std::uint32_t seconds, decltype(&::pthread_mutex_trylock) tryLock,
                         pthread_mutex_t* mutex) {
  for (std::uint64_t tries = seconds * kLockTriesPerSecond; tries != 0; --tries) {
    if (tryLock(mutex) == 0) return kSyncOk;
    ::nanosleep(&kLockPause, nullptr);
  }
  return kSyncSystemFailure;
}

std::uint32_t LockPlatformMutex(void* mutex) {
  const std::uint32_t seconds = lockTimeoutSeconds.load(std::memory_order_relaxed);
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
  return externalHooks.create != nullptr ? externalHooks.create(&mutex_)
                                         : CreatePlatformMutex(mutex_);
}

std::uint32_t CCritical::Destroy() {
  if (!initialised_) return kSyncOk;
  std::uint32_t result = kSyncGeneralError;
  if (mutex_ != nullptr) {
    result = externalHooks.destroy != nullptr ? externalHooks.destroy(mutex_)
                                              : DestroyPlatformMutex(mutex_);
  }
  mutex_ = nullptr;
  initialised_ = false;
  liveSections.fetch_sub(1, std::memory_order_relaxed);
  return result;
}

std::uint32_t CCritical::Lock() {
  return externalHooks.lock != nullptr ? externalHooks.lock(mutex_) : LockPlatformMutex(mutex_);
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
  return externalHooks.unlock != nullptr ? externalHooks.unlock(mutex_)
                                         : UnlockPlatformMutex(mutex_);
}

bool CCritical::IsHeldByOtherThread() const {
  const ThreadId owner = owner_.load(std::memory_order_relaxed);
  return owner != 0 && owner != ThreadSelf();
}

bool CCriticalCounter::Increment(std::uint64_t& value) {
  const CriticalScope hold(this);
  const bool changes = counter_ < std::numeric_limits<std::uint32_t>::max();
  if (changes) ++counter_;
  value = counter_;
  return changes;
}

bool CCriticalCounter::Decrement(std::uint64_t& value) {
  const CriticalScope hold(this);
  const bool changes = counter_ != 0;
  if (changes) --counter_;
  value = counter_;
  return changes;
}

void SetLockTimeout(std::uint32_t seconds) {
  lockTimeoutSeconds.store(seconds, std::memory_order_relaxed);
}

std::uint32_t SetExternalMutexHooks(const ExternalMutexHooks* hooks) {
  if (liveSections.load(std::memory_order_relaxed) != 0) {
    TraceWrite("Critical - INTERNAL ERROR, external pointers disabled");
    return kSyncOk;
  }
  if (hooks == nullptr) {
    TraceWrite("Critical - Internal mutexes enabled");
    return kSyncOk;
  }
  const int present = (hooks->create != nullptr) + (hooks->destroy != nullptr) +
                      (hooks->lock != nullptr) + (hooks->unlock != nullptr);
  if (present != 4 && !kInternalLockingPossible) {
    TraceWrite("Critical - Internal locking not supported");
    return kSyncCantLock;
  }
  if (present == 4) {
    externalHooks = *hooks;
    TraceWrite("Critical - External mutexes enabled");
    return kSyncOk;
  }
  if (present == 0) return kSyncOk;
  TraceWrite("Critical - Bad arguments");
  return kSyncBadArguments;
}

// --- threads ----------------------------------------------------------------------------------

ThreadId ThreadCreate(ThreadFunction function, void* argument) {
  if (Threads().create == nullptr) {
    TraceWrite("Thread - Failed to load create thread from posix library");
    return 0;
  }
  pthread_t thread = 0;
  return Threads().create(&thread, nullptr, function, argument) == 0 ? thread : 0;
}

void ThreadDetachSelf() {
  if (Threads().detach != nullptr && Threads().self != nullptr) Threads().detach(Threads().self());
}

void ThreadKill(ThreadId thread, int signal) {
  if (Threads().kill == nullptr) {
    TraceWrite("Thread - Failed to load kill thread from posix library");
    return;
  }
  if (thread != 0) Threads().kill(static_cast<pthread_t>(thread), signal);
}

ThreadId ThreadSelf() {
  return Threads().self != nullptr ? Threads().self() : 0;
}

}  // namespace qixx::runtime
