#include "runtime/children.h"

#include <sys/wait.h>

#include <algorithm>
#include <csignal>

#include "runtime/no_destructor.h"
#include "runtime/sync.h"

namespace qixx::runtime {
namespace {

/// The thread's ChildMark while it has one.
constinit thread_local ChildMark* mark = nullptr;

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

void ChildPlace::Register(pid_t child) noexcept {
  Registry& registry = GetRegistry();
  const CriticalScope hold(&registry.lock);
  std::erase_if(registry.children, [child](const Child& other) { return other.id == child; });
  place_.front().id = child;
  place_.front().marked = mark != nullptr;
  if (mark != nullptr) mark->latest_ = child;
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
  const auto known = std::ranges::find(registry.children, child, &Child::id);
  if (known == registry.children.end()) return AskSystem(child);
  const ChildState state =
      known->ended ? ChildState{.result = child, .status = known->status} : AskSystem(child);
  if (state.result != 0) registry.children.erase(known);
  return state;
}

ChildState PeekChild(pid_t child) {
  Registry& registry = GetRegistry();
  const CriticalScope hold(&registry.lock);
  const auto known = std::ranges::find(registry.children, child, &Child::id);
  if (known == registry.children.end()) return {};
  return known->ended ? ChildState{.result = child, .status = known->status} : PeekSystem(child);
}

ChildState TakeMarkedChild(pid_t child) {
  Registry& registry = GetRegistry();
  const CriticalScope hold(&registry.lock);
  const auto known = std::ranges::find_if(
      registry.children, [child](const Child& other) { return other.marked && other.id == child; });
  if (known == registry.children.end()) return {};
  if (!known->ended && Update(*known) == 0) return {.result = 0};
  const Child taken = *known;
  registry.children.erase(known);
  return taken.ended ? ChildState{.result = child, .status = taken.status} : ChildState{};
}

ChildMark::ChildMark() {
  mark = this;
}

ChildMark::~ChildMark() {
  mark = nullptr;
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
