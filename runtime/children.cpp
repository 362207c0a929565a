#include "runtime/children.h"

#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <new>
#include <vector>

#include "runtime/sync.h"

namespace qixx::runtime {
namespace {

struct Child {
  pid_t id;
  bool ended;
  int status;  ///< of an ended child
  bool marked;
};

/// Set while the thread has a ChildMark.
constinit thread_local bool marking = false;

/// The children in the order in which they were started.
struct Registry {
  CCritical lock;
  std::vector<Child> children;
};

/// Never destroyed, because children may end after the static destructors have begun. Null when
/// memory ran out; children are then asked for one by one.
Registry* GetRegistry() {
  static Registry* const registry = new (std::nothrow) Registry;
  return registry;
}

void Forget(std::vector<Child>& children, pid_t id) {
  std::erase_if(children, [id](const Child& child) { return child.id == id; });
}

/// Drops the statuses of the children that ended longest ago, by order of their start.
void LimitStatuses(std::vector<Child>& children) {
  auto ended = static_cast<std::size_t>(
      std::count_if(children.begin(), children.end(), [](const Child& c) { return c.ended; }));
  std::erase_if(children, [&ended](const Child& child) {
    if (!child.ended || ended <= kKeptStatuses) return false;
    --ended;
    return true;
  });
}

}  // namespace

void RegisterChild(pid_t child) {
  Registry* const registry = GetRegistry();
  if (registry == nullptr) return;
  const CriticalScope hold(&registry->lock);
  // The system may have given the id of an ended child once more.
  Forget(registry->children, child);
  try {
    registry->children.push_back({.id = child, .ended = false, .status = 0, .marked = marking});
  } catch (const std::bad_alloc&) {
    // The child stays unreaped until somebody asks for it.
  }
}

void ReapChildren() {
  Registry* const registry = GetRegistry();
  if (registry == nullptr) return;
  const CriticalScope hold(&registry->lock);
  for (std::size_t n = registry->children.size(); n-- > 0;) {
    Child& child = registry->children[n];
    if (child.ended) continue;
    const pid_t result = ::waitpid(child.id, &child.status, WNOHANG);
    child.ended = result == child.id;
    // Reaped by somebody else.
    if (result < 0) registry->children.erase(registry->children.begin() + static_cast<int>(n));
  }
  LimitStatuses(registry->children);
}

pid_t CheckChild(pid_t child, int& status) {
  if (child <= 0) return -1;
  Registry* const registry = GetRegistry();
  if (registry == nullptr) return ::waitpid(child, &status, WNOHANG);
  const CriticalScope hold(&registry->lock);
  std::vector<Child>& children = registry->children;
  const auto known = std::find_if(children.begin(), children.end(),
                                  [child](const Child& other) { return other.id == child; });
  pid_t result = child;
  if (known != children.end() && known->ended) {
    status = known->status;
  } else {
    result = ::waitpid(child, &status, WNOHANG);
  }
  if (result != 0 && known != children.end()) children.erase(known);
  return result;
}

ChildMark::ChildMark() {
  marking = true;
}

ChildMark::~ChildMark() {
  marking = false;
}

void SignalMarkedChildren(int signal) {
  Registry* const registry = GetRegistry();
  if (registry == nullptr) return;
  const CriticalScope hold(&registry->lock);
  for (Child& child : registry->children) {
    if (!child.marked || child.ended) continue;
    // Asked for at the last moment: a loaded library may have reaped children that are not its own.
    const pid_t result = ::waitpid(child.id, &child.status, WNOHANG);
    child.ended = result == child.id;
    if (result == 0) ::kill(child.id, signal);
  }
}

}  // namespace qixx::runtime
