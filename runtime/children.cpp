#include "runtime/children.h"

#include <sys/wait.h>

#include <algorithm>
#include <csignal>

#include "runtime/no_destructor.h"
#include "runtime/sync.h"

namespace qixx::runtime {
namespace {

/// The children in the order in which they were started.
struct Registry {
  CCritical lock;
  std::list<Child> children;
};

/// Never destroyed, because children may end after the static destructors have begun.
Registry& GetRegistry() {
  static NoDestructor<Registry> registry;
  return *registry;
}

ChildState AskSystem(pid_t child) {
  ChildState state;
  state.result = ::waitpid(child, &state.status, WNOHANG);
  return state;
}

/// Leaves an ended child to be reaped.
ChildState PeekSystem(pid_t child) {
  siginfo_t info = {};
  if (::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) != 0) return {};
  const int status = info.si_code == CLD_EXITED ? W_EXITCODE(info.si_status, 0) : info.si_status;
  return {.result = info.si_pid, .status = status};
}

/// Notes the end of a registered child; -1 when somebody else has reaped it.
pid_t Update(Child& child) {
  const ChildState state = AskSystem(child.id);
  child.ended = state.result == child.id;
  if (child.ended) child.status = state.status;
  return state.result;
}

/// The registered child of that id; past the end when there is none.
auto Find(std::list<Child>& children, pid_t child) {
  return std::ranges::find(children, child, &Child::id);
}

/// Asks for a registered child, and forgets it when it has ended.
ChildState Take(std::list<Child>& children, std::list<Child>::iterator known) {
  const ChildState state = known->ended ? ChildState{.result = known->id, .status = known->status}
                                        : AskSystem(known->id);
  if (state.result != 0) children.erase(known);
  return state;
}

/// Drops the statuses of the children that ended longest ago, by order of their start.
void LimitStatuses(std::list<Child>& children) {
  auto ended = static_cast<std::size_t>(std::ranges::count_if(children, &Child::ended));
  std::erase_if(children, [&ended](const Child& child) {
    if (!child.ended || ended <= kMaxKeptStatuses) return false;
    --ended;
    return true;
  });
}

}  // namespace

ChildPlace::ChildPlace() : place_(1) {
  GetRegistry();
}

void ChildPlace::Register(pid_t child, bool marked) noexcept {
  Registry& registry = GetRegistry();
  const CriticalScope hold(&registry.lock);
  std::erase_if(registry.children, [child](const Child& other) { return other.id == child; });
  place_.front() = {.id = child, .marked = marked};
  registry.children.splice(registry.children.end(), place_);
}

void ReapChildren() {
  Registry& registry = GetRegistry();
  const CriticalScope hold(&registry.lock);
  std::erase_if(registry.children,
                [](Child& child) { return !child.marked && !child.ended && Update(child) < 0; });
  LimitStatuses(registry.children);
}

ChildState CheckChild(pid_t child) {
  if (child <= 0) return {};
  Registry& registry = GetRegistry();
  const CriticalScope hold(&registry.lock);
  const auto known = Find(registry.children, child);
  return known == registry.children.end() ? AskSystem(child) : Take(registry.children, known);
}

ChildState PeekChild(pid_t child) {
  Registry& registry = GetRegistry();
  const CriticalScope hold(&registry.lock);
  const auto known = Find(registry.children, child);
  if (known == registry.children.end()) return {};
  return known->ended ? ChildState{.result = child, .status = known->status} : PeekSystem(child);
}

ChildState TakeMarkedChild(pid_t child) {
  Registry& registry = GetRegistry();
  const CriticalScope hold(&registry.lock);
  const auto known = Find(registry.children, child);
  const bool isMarked = known != registry.children.end() && known->marked;
  return isMarked ? Take(registry.children, known) : ChildState{};
}

void SignalMarkedChildren(int signal) {
  Registry& registry = GetRegistry();
  const CriticalScope hold(&registry.lock);
  for (Child& child : registry.children) {
    if (!child.marked || child.ended) continue;
    // Asked for at the last moment: a loaded library may have reaped children that are not its own.
    if (Update(child) == 0) ::kill(child.id, signal);
  }
}

}  // namespace qixx::runtime
