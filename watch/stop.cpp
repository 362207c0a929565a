#include "watch/stop.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdint>
#include <ctime>

#include "runtime/trace.h"

namespace qixx::watch {
namespace {

using SteadyClock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int kStopSignals[] = {SIGTERM, SIGINT, SIGHUP};

std::atomic<bool> stopRequested{false};
/// Made readable once and never read, so that it ends every sleep from then on.
std::atomic<int> wakeDescriptor{-1};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free,
              "the handler must not wait for a lock");

void SetAction(int signal, void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  sigaction(signal, &action, nullptr);
}

bool IsIgnored(int signal) {
  struct sigaction action = {};
  return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

/// Runs as a signal handler: async-signal-safe calls only.
void NoteStop(int /*signal*/) {
  const int callerError = errno;
  for (const int other : kStopSignals) {
    if (!IsIgnored(other)) SetAction(other, SIG_DFL);
  }
  stopRequested = true;
  const std::uint64_t one = 1;
  // A write that fails leaves the stop noted; it is then seen at the next look.
  [[maybe_unused]] const ssize_t written = ::write(wakeDescriptor, &one, sizeof one);
  errno = callerError;
}

/// A file opened later must not become standard input or output of a command.
void FillStandardDescriptors() {
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
    if (::fcntl(descriptor, F_GETFD) == -1 && errno == EBADF) {
      // The lowest free descriptor is this one. It is inherited, as standard descriptors are.
      if (::open("/dev/null", O_RDWR) == -1) return;
    }
  }
}

void UnblockStopSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : kStopSignals) sigaddset(&set, signal);
  sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

void PauseFor(milliseconds time) {
  const timespec pause = {static_cast<time_t>(time.count() / 1000),
                          static_cast<long>(time.count() % 1000 * 1'000'000)};
  ::nanosleep(&pause, nullptr);
}

bool SleepUnlessStopped(milliseconds time) {
  const SteadyClock::time_point end = SteadyClock::now() + time;
  pollfd wake = {wakeDescriptor, POLLIN, 0};
  while (!stopRequested) {
    const auto left = std::chrono::ceil<milliseconds>(end - SteadyClock::now());
    if (left.count() <= 0) return true;
    const auto timeout = static_cast<int>(std::min<std::int64_t>(left.count(), INT_MAX));
    const int woken = ::poll(&wake, 1, timeout);
    const bool interrupted = woken == -1 && errno == EINTR;
    // A descriptor that something else in the process closed must not make this a busy loop.
    if (woken != 0 && !interrupted && !stopRequested) PauseFor(left);
  }
  return false;
}

}  // namespace

void InstallStopHandlers() {
  FillStandardDescriptors();
  if (wakeDescriptor == -1) wakeDescriptor = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  SetAction(SIGPIPE, SIG_IGN);
  // A file at its size limit is then a failed write, which is handled, and not the end.
  SetAction(SIGXFSZ, SIG_IGN);
  SetAction(SIGCHLD, SIG_DFL);
  // Whoever started the service with a signal ignored, as nohup does, wants it to survive that one.
  for (const int signal : kStopSignals) {
    if (!IsIgnored(signal)) SetAction(signal, NoteStop);
  }
  UnblockStopSignals();
}

bool StopRequested() {
  return stopRequested;
}

bool StoppableClock::Sleep(unsigned time) {
  return SleepUnlessStopped(milliseconds(time));
}

bool WatchSleep(Clock& clock, unsigned time) {
  try {
    return clock.Sleep(time);
  } catch (...) {
    runtime::TraceWrite("Watch - Sleep exception");
    return !StopRequested();
  }
}

}  // namespace qixx::watch
