#include "runtime/clock.h"

#include <cerrno>
#include <ctime>

namespace qixx::runtime {

std::int64_t MonotonicMilliseconds() {
  timespec now = {};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1'000 + now.tv_nsec / 1'000'000;
}

void SleepMilliseconds(std::int64_t milliseconds) {
  if (milliseconds <= 0) return;
  timespec left = {.tv_sec = milliseconds / 1'000, .tv_nsec = milliseconds % 1'000 * 1'000'000};
  while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

}  // namespace qixx::runtime
