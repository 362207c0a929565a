// The launched children that nobody has waited for yet.
//
// A service that runs for months must not collect ended children, and must not reap a process that
// somebody else in the program started. So the launcher registers each child here, the event loop
// reaps those that ended, and their status is kept for a later question. One lock guards the list;
// all operations may be called from any thread.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <list>

namespace qixx::runtime {

inline constexpr std::size_t kMaxKeptStatuses = 256;

/// What is known of a child.
struct Child {
  pid_t id = 0;
  bool ended = false;
  bool marked = false;  ///< its starter looks after it
  int status = 0;       ///< of an ended child
};

/// A child's place in the list. It is made before the fork, so that memory can run out no later.
class ChildPlace {
 public:
  ChildPlace();
  /// Puts the child into the list; once. An older child of the same id is forgotten: it has ended,
  /// and the system has given its id away once more.
  void Register(pid_t child, bool marked = false) noexcept;

 private:
  std::list<Child> place_;
};

/// Reaps the ended ones among the registered children, without blocking and without a trace line.
/// The statuses of the latest kMaxKeptStatuses of them are kept. Marked ones stay for
/// TakeMarkedChild: so long the system gives their ids to nobody else.
void ReapChildren();
/// What waitpid tells of a child.
struct ChildState {
  pid_t result = -1;  ///< its id when it has ended, 0 while it runs, -1 when there is none
  int status = 0;     ///< of an ended child
};
/// Asks for a child without blocking. An ended child is forgotten. A child that is not registered
/// is asked for as well; an id that is not positive is no child.
[[nodiscard]] ChildState CheckChild(pid_t child);
/// The same for a registered child, which is neither reaped nor forgotten.
[[nodiscard]] ChildState PeekChild(pid_t child);

/// Asks for a marked child without blocking; reaps and forgets it when it has ended. -1 also when
/// somebody else has reaped it.
[[nodiscard]] ChildState TakeMarkedChild(pid_t child);
/// Sends the signal to the marked children that are still there. An id that the system may have
/// given to another process by now is never used.
void SignalMarkedChildren(int signal);

}  // namespace qixx::runtime
