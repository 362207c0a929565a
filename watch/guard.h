// Going on, and coming to an end in order, when memory runs out.
#pragma once

#include <new>
#include <utility>

namespace qixx::watch {

/// Runs one step of the watch: a round, the commands of an insert, one command of a removal, a
/// command on a thread of its own, each step of start and end. Memory that runs out in it is the
/// failure of that step alone. Returns the step's answer, false when it was cut short.
template <typename Step>
bool RunGuarded(const Step& step) {
  try {
    return step();
  } catch (const std::bad_alloc&) {
    return false;
  }
}

/// The same for a step without an answer. False when it was cut short.
template <typename Step>
bool RunStep(const Step& step) {
  return RunGuarded([&step] { return step(), true; });
}

/// Does something at the end of a scope, however that is left.
template <typename Action>
class AtExit {
 public:
  explicit AtExit(Action action) : action_(std::move(action)) {}
  ~AtExit() { action_(); }
  AtExit(const AtExit&) = delete;
  AtExit& operator=(const AtExit&) = delete;

 private:
  Action action_;
};

}  // namespace qixx::watch
