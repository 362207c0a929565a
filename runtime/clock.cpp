#include "runtime/clock.h"

#include <cerrno>
#include <ctime>

namespace qixx::runtime {

std::int64_t MonotonicMilliseconds() {
  timespec now = {};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1'000 + now.tv_nsec / 1'000'000;
}

timespec TimeSpan(std::int64_t milliseconds) {
  return {.tv_sec = static_cast<std::time_t>(milliseconds / 1'000),
          .tv_nsec = static_cast<decltype(timespec::tv_nsec)>(milliseconds % 1'000 * 1'000'000)};
}

void SleepMilliseconds(std::int64_t milliseconds) {
  if (milliseconds <= 0) return;
  timespec left = TimeSpan(milliseconds);
  while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

}  // namespace qixx::runtime
