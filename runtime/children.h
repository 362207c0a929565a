// The launched children that nobody has waited for yet.
//
// A service that runs for months must not collect ended children, and must not reap a process that
// somebody else in the program started. So the launcher registers each child here, the event loop
// reaps those that ended, and their status is kept for a later question. One lock guards the list;
// all operations may be called from any thread.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace qixx::runtime {

inline constexpr std::size_t kKeptStatuses = 256;

void RegisterChild(pid_t child);
/// Reaps the ended ones among the registered children, without blocking and without a trace line.
/// The statuses of the latest kKeptStatuses of them are kept.
void ReapChildren();
/// Asks for a child's state without blocking, as waitpid does: its id when it has ended (the status
/// is filled), 0 while it runs, -1 when there is no such child or the id is not positive. An ended
/// child is forgotten. A child that is not registered is asked for as well.
pid_t CheckChild(pid_t child, int& status);

/// Marks the children that the calling thread registers while it lives. Not to be nested.
class ChildMark {
 public:
  ChildMark();
  ~ChildMark();
  ChildMark(const ChildMark&) = delete;
  ChildMark& operator=(const ChildMark&) = delete;
};
/// Sends the signal to the marked children that are still there. An id that the system may have
/// given to another process by now is never used.
void SignalMarkedChildren(int signal);

}  // namespace qixx::runtime
