// Recursive critical sections and threads over the POSIX threads library, which is not linked but
// loaded at run time on first need.
//
// Without the library the system runs unlocked: Initialise gives kSyncSystemFailure, Enter and
// Leave give kSyncGeneralError, ThreadSelf gives 0 and ThreadCreate fails with a trace line.
// Result codes are those of PKCS#11, because the same class may serve a PKCS#11 module.
#pragma once

#include <atomic>
#include <cstdint>

namespace qixx::runtime {

inline constexpr std::uint32_t kSyncOk = 0;
/// Not initialised, or not held by the caller (CKR_GENERAL_ERROR).
inline constexpr std::uint32_t kSyncGeneralError = 5;
/// Bad arguments (CKR_ARGUMENTS_BAD).
inline constexpr std::uint32_t kSyncBadArguments = 7;
/// The threads library failed (CKR_DEVICE_ERROR).
inline constexpr std::uint32_t kSyncSystemFailure = 48;

using ThreadId = std::uint64_t;
using ThreadFunction = void* (*)(void*);

/// A recursive mutex. Owner and count are relaxed atomics: they mean something to the owning thread
/// only, and any other thread that looks at them goes on to block in the mutex itself.
class CCritical {
 public:
  CCritical();
  virtual ~CCritical();
  CCritical(const CCritical&) = delete;
  CCritical& operator=(const CCritical&) = delete;

  /// Idempotent; called by the constructor.
  std::uint32_t Initialise();
  /// Idempotent; called by the destructor. When the platform refuses to destroy the mutex, its
  /// memory is kept: somebody may be in it.
  std::uint32_t Destroy();
  /// Blocks until the section is held. The caller is recorded as owner even when locking failed.
  std::uint32_t Enter();
  std::uint32_t Leave();
  /// spare.
  [[nodiscard]] bool IsHeldByOtherThread() const;
  /// How many sections of the process are initialised.
  [[nodiscard]] static std::uint64_t LiveCount();

 private:
  [[maybe_unused]] unsigned char reserved_[64] = {};  ///< part of the object's layout in the suite
  void* mutex_ = nullptr;
  bool initialised_ = false;
  std::atomic<ThreadId> owner_{0};
  std::atomic<std::uint64_t> count_{0};
};

/// Holds a critical section for a scope.
class CriticalScope {
 public:
  explicit CriticalScope(CCritical* section) : section_(section) { section_->Enter(); }
  ~CriticalScope() { section_->Leave(); }
  CriticalScope(const CriticalScope&) = delete;
  CriticalScope& operator=(const CriticalScope&) = delete;

 private:
  CCritical* section_;
};

/// Starts a thread with default attributes. Returns its id, 0 on failure, which ScarceMeans may
/// tell of.
ThreadId ThreadCreate(ThreadFunction function, void* argument);
/// Lets the calling thread free its own resources when it ends. Does nothing without the library.
void ThreadDetachSelf();
/// The calling thread's id, 0 without the library.
[[nodiscard]] ThreadId ThreadSelf();

}  // namespace qixx::runtime
