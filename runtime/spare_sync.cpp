#include "runtime/spare_sync.h"

#include <atomic>
#include <limits>

#include "runtime/thread_library.h"
#include "runtime/trace.h"

namespace qixx::runtime {
namespace {

constinit ExternalMutexHooks mutexHooks;
constinit std::atomic<std::uint32_t> lockTimeoutSeconds{0};

}  // namespace

std::optional<std::uint64_t> CCriticalCounter::Increment() {
  const CriticalScope hold(this);
  if (counter_ >= std::numeric_limits<std::uint32_t>::max()) return std::nullopt;
  return ++counter_;
}

std::optional<std::uint64_t> CCriticalCounter::Decrement() {
  const CriticalScope hold(this);
  if (counter_ == 0) return std::nullopt;
  return --counter_;
}

void ThreadKill(ThreadId thread, int signal) {
  if (Threads().kill == nullptr) {
    TraceWrite("Thread - Failed to load kill thread from posix library");
    return;
  }
  if (thread != 0) Threads().kill(static_cast<pthread_t>(thread), signal);
}

void SetLockTimeout(std::uint32_t seconds) {
  lockTimeoutSeconds.store(seconds, std::memory_order_relaxed);
}

std::uint32_t LockTimeout() {
  return lockTimeoutSeconds.load(std::memory_order_relaxed);
}

std::uint32_t SetExternalMutexHooks(const ExternalMutexHooks* hooks) {
  if (CCritical::LiveCount() != 0) {
    TraceWrite("Critical - INTERNAL ERROR, external pointers disabled");
    return kSyncOk;
  }
  if (hooks == nullptr) {
    TraceWrite("Critical - Internal mutexes enabled");
    return kSyncOk;
  }
  const int present = (hooks->create != nullptr) + (hooks->destroy != nullptr) +
                      (hooks->lock != nullptr) + (hooks->unlock != nullptr);
  if (present == 4) {
    mutexHooks = *hooks;
    TraceWrite("Critical - External mutexes enabled");
    return kSyncOk;
  }
  if (present == 0) return kSyncOk;
  TraceWrite("Critical - Bad arguments");
  return kSyncBadArguments;
}

const ExternalMutexHooks& MutexHooks() {
  return mutexHooks;
}

}  // namespace qixx::runtime
