// Spare: asked of this layer by the suite's design, built, called by nothing in this
// program.
//
// A counter under a lock of its own, signals to threads, and other people's mutexes in place of the
// platform's, as a PKCS#11 module may get them from its caller.
#pragma once

#include <cstdint>
#include <optional>

#include "runtime/sync.h"

namespace qixx::runtime {

/// Passes neither 0 nor 4,294,967,295. Any thread may count.
class CCriticalCounter : public CCritical {
 public:
  CCriticalCounter() = default;
  ~CCriticalCounter() override = default;
  /// The new value; nothing when the counter stands at its end.
  std::optional<std::uint64_t> Increment();
  std::optional<std::uint64_t> Decrement();

 private:
  std::uint64_t counter_ = 0;
};

/// Sends the signal to a thread that has not been freed yet; id 0 is no thread.
void ThreadKill(ThreadId thread, int signal);

/// Makes Enter give up after that many seconds with kSyncSystemFailure; 0, as at start, waits for
/// ever.
void SetLockTimeout(std::uint32_t seconds);
[[nodiscard]] std::uint32_t LockTimeout();

/// Mutex functions in the manner of CK_C_INITIALIZE_ARGS; all four or none.
struct ExternalMutexHooks {
  std::uint32_t (*create)(void** mutex) = nullptr;
  std::uint32_t (*destroy)(void* mutex) = nullptr;
  std::uint32_t (*lock)(void* mutex) = nullptr;
  std::uint32_t (*unlock)(void* mutex) = nullptr;
};
/// Registers mutex functions for all sections made from now on, before there are other threads.
/// Refused (with a trace line, result 0) once any section is live. A null record changes nothing.
std::uint32_t SetExternalMutexHooks(const ExternalMutexHooks* hooks);
/// The registered functions; all null without any.
[[nodiscard]] const ExternalMutexHooks& MutexHooks();

}  // namespace qixx::runtime
