#include "runtime/library_call.h"

#include <cxxabi.h>

#include <csetjmp>
#include <cstdlib>
#include <exception>

namespace qixx::runtime {
namespace {

/// Behind the innermost call that the thread is in; null outside of calls.
constinit thread_local std::jmp_buf* wayBack = nullptr;

std::terminate_handler otherwise = nullptr;

/// Leaves a call when its frame is unwound. The end of a thread unwinds without an exception that
/// could be caught for good: the C library ends the process when a catch block keeps it. So the way
/// out is a jump from the first cleanup that it meets. All frames below are unwound by then.
class Departure {
 public:
  explicit Departure(std::jmp_buf& back) : back_(back) {}
  ~Departure() {
    if (!isBack_) std::longjmp(back_, 1);
  }
  Departure(const Departure&) = delete;
  Departure& operator=(const Departure&) = delete;

  void IsBack() { isBack_ = true; }

 private:
  std::jmp_buf& back_;
  bool isBack_ = false;
};

/// A frame of its own, so that the jump leaves nothing else undone. The end of a thread has no
/// exception object, which the undefined-behaviour sanitizer would report.
[[gnu::noinline]] __attribute__((no_sanitize("null"))) bool RunCall(void (*call)(const void*),
                                                                    const void* context,
                                                                    std::jmp_buf& back) {
  Departure departure(back);
  bool returned = true;
  try {
    call(context);
  } catch (const abi::__forced_unwind&) {
    throw;
  } catch (...) {
    returned = false;
  }
  departure.IsBack();
  return returned;
}

/// An exception that nothing may let through counts as caught by now, and is given back.
void LeaveCall() {
  if (wayBack != nullptr) {
    if (std::current_exception() != nullptr) abi::__cxa_end_catch();
    std::longjmp(*wayBack, 1);
  }
  if (otherwise != nullptr) otherwise();
  std::abort();
}

}  // namespace

bool ContainCall(void (*call)(const void* context), const void* context) {
  std::jmp_buf back;
  std::jmp_buf* const before = wayBack;
  if (setjmp(back) != 0) {  // NOLINT(cert-err52-cpp): see Departure
    wayBack = before;
    return false;
  }
  wayBack = &back;
  const bool returned = RunCall(call, context, back);
  wayBack = before;
  return returned;
}

void ContainTermination() {
  if (std::get_terminate() != &LeaveCall) otherwise = std::set_terminate(&LeaveCall);
}

}  // namespace qixx::runtime
