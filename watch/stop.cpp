#include "watch/stop.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
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

/// A pipe whose reading end is readable from the first stop signal on, for good.
struct WakePipe {
  std::atomic<int> reading{kNoDescriptor};
  std::atomic<int> writing{kNoDescriptor};
  dev_t device = 0;
  ino_t number = 0;
};
constinit WakePipe wakePipe;

static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free,
              "the handler must not wait for a lock");

bool IsWakePipe(int descriptor) {
  struct stat found = {};
  return ::fstat(descriptor, &found) == 0 && found.st_dev == wakePipe.device &&
         found.st_ino == wakePipe.number;
}

void OpenWakePipe() {
  int ends[2];
  struct stat made = {};
  if (wakePipe.reading != kNoDescriptor || ::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return;
  if (::fstat(ends[1], &made) != 0) return;
  wakePipe.device = made.st_dev;
  wakePipe.number = made.st_ino;
  wakePipe.reading = ends[0];
  wakePipe.writing = ends[1];
}

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
  // Without a write the stop is noted, and seen at the next look.
  if (IsWakePipe(wakePipe.writing)) {
    [[maybe_unused]] const ssize_t written = ::write(wakePipe.writing, "", 1);
  }
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

/// A descriptor that something else closed, or opened anew, must not make a wait a busy loop. So
/// whatever is no plain news is not waited for any longer.
class Waited {
 public:
  Waited(int wake, int event) : entries_{{{wake, POLLIN, 0}, {event, POLLIN, 0}}} {}

  /// False when the system could not even wait.
  bool Poll(int timeout) {
    const int woken = ::poll(entries_.data(), entries_.size(), timeout);
    if (woken < 0) return errno == EINTR;
    if (woken == 0) return true;
    if (entries_[0].revents != 0) entries_[0].fd = kNoDescriptor;
    isReadable_ = entries_[1].revents == POLLIN;
    if (entries_[1].revents != 0) entries_[1].fd = kNoDescriptor;
    return true;
  }
  [[nodiscard]] bool IsReadable() const { return isReadable_; }

 private:
  std::array<pollfd, 2> entries_;
  bool isReadable_ = false;
};

WakeUp WaitUnlessStopped(milliseconds time, int descriptor) {
  const SteadyClock::time_point end = SteadyClock::now() + time;
  Waited waited(wakePipe.reading, descriptor);
  auto left = time;
  while (!stopRequested) {
    const auto timeout = static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, INT_MAX));
    if (!waited.Poll(timeout)) PauseFor(left);
    if (waited.IsReadable() && !stopRequested) return WakeUp::kReadable;
    left = std::chrono::ceil<milliseconds>(end - SteadyClock::now());
    if (left.count() <= 0) break;
  }
  return stopRequested ? WakeUp::kStop : WakeUp::kTimePassed;
}

}  // namespace

void InstallStopHandlers() {
  FillStandardDescriptors();
  OpenWakePipe();
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

WakeUp StoppableClock::Wait(unsigned time, int descriptor) {
  return WaitUnlessStopped(milliseconds(time), descriptor);
}

WakeUp WatchWait(Clock& clock, unsigned time, int descriptor) {
  try {
    return clock.Wait(time, descriptor);
  } catch (...) {
    runtime::TraceWrite("Watch - Sleep exception");
    return StopRequested() ? WakeUp::kStop : WakeUp::kTimePassed;
  }
}

bool WatchSleep(Clock& clock, unsigned time) {
  return WatchWait(clock, time, kNoDescriptor) != WakeUp::kStop;
}

}  // namespace qixx::watch
