// Whether the system was short of what a step needed.
#pragma once

#include <cerrno>

namespace qixx::runtime {

/// Tells of the calling thread, since the object was made: whether a process or a thread could not
/// be started, or a file not be replaced, for want of memory or of room on the disk, or because a
/// limit was reached. Trying again later may work.
class ScarceMeans {
 public:
  ScarceMeans() : before_(count) {}
  [[nodiscard]] bool Any() const { return count != before_; }

  /// What was noted since then is no loss.
  void TakeBack() const { count = before_; }

  /// For who tried, with the system's error number; other errors do not count.
  static void Note(int error) {
    if (error == EAGAIN || error == ENOMEM || error == ENOSPC || error == EDQUOT) ++count;
  }

 private:
  static inline constinit thread_local unsigned count = 0;
  unsigned before_;
};

}  // namespace qixx::runtime
