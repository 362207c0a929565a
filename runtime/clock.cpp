#include "runtime/clock.h"

#include <cerrno>
#include <ctime>

namespace qixx::runtime {
namespace {

constexpr std::int64_t kMillisecondsPerSecond = 1'000;
constexpr std::int64_t kNanosecondsPerMillisecond = 1'000'000;

}  // namespace

std::int64_t MonotonicMilliseconds() {
  timespec now = {};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * kMillisecondsPerSecond + now.tv_nsec / kNanosecondsPerMillisecond;
}

void SleepMilliseconds(std::int64_t milliseconds) {
  if (milliseconds <= 0) return;
  timespec left = {};
  left.tv_sec = milliseconds / kMillisecondsPerSecond;
  left.tv_nsec = milliseconds % kMillisecondsPerSecond * kNanosecondsPerMillisecond;
  while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

}  // namespace qixx::runtime
