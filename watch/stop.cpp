#include "watch/stop.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <ctime>

#include "runtime/clock.h"
#include "runtime/descriptor.h"

namespace qixx::watch {
namespace {

struct StopSignal {
  int number;
  bool isTaken = false;
};
/// Whoever started the service with a signal ignored, as nohup does, wants it to survive that one.
constinit StopSignal stopSignals[] = {{SIGTERM}, {SIGINT}, {SIGHUP}};

std::atomic<bool> stopRequested{false};
/// By somebody other than the watcher that started this one.
std::atomic<bool> signalled{false};
std::atomic<pid_t> startingWatcher{-1};

/// A pipe whose reading end is readable from the first stop signal on, for good.
struct WakePipe {
  std::atomic<int> reading{kNoDescriptor};
  std::atomic<int> writing{kNoDescriptor};
  struct stat made {};
};
constinit WakePipe wakePipe;

static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free,
              "the handler must not wait for a lock");

void OpenWakePipe() {
  int ends[2];
  if (wakePipe.reading != kNoDescriptor || ::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return;
  if (::fstat(ends[1], &wakePipe.made) != 0) return;
  wakePipe.reading = ends[0];
  wakePipe.writing = ends[1];
}

bool IsIgnored(int signal) {
  struct sigaction action = {};
  return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

/// Whether this is no request of its own: the starting watcher passes on the signal that it got,
/// which may have been sent to this one too.
bool IsPassedOn(const siginfo_t& signal) {
  return signal.si_code == SI_USER && signal.si_pid == startingWatcher;
}

/// Runs as a signal handler: async-signal-safe calls only.
void NoteStop(int signal, siginfo_t* details, void* /*context*/) {
  const int callerError = errno;
  if (!IsPassedOn(*details) && signalled.exchange(true)) {
    // The signal is delivered when this handler has returned.
    ::signal(signal, SIG_DFL);
    ::raise(signal);
  }
  RequestStop();
  errno = callerError;
}

void NoteStopAt(int signal) {
  struct sigaction action = {};
  action.sa_sigaction = NoteStop;
  action.sa_flags = SA_RESTART | SA_SIGINFO;
  sigemptyset(&action.sa_mask);
  sigaction(signal, &action, nullptr);
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
  for (const StopSignal& signal : stopSignals) sigaddset(&set, signal.number);
  sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

void PauseFor(std::int64_t milliseconds) {
  const timespec pause = runtime::TimeSpan(milliseconds);
  ::nanosleep(&pause, nullptr);
}

}  // namespace

void InstallStopHandlers() {
  FillStandardDescriptors();
  OpenWakePipe();
  ::signal(SIGPIPE, SIG_IGN);
  // A file at its size limit is then a failed write, which is handled, and not the end.
  ::signal(SIGXFSZ, SIG_IGN);
  // A notice to the terminal of a shell that is working on something else does not stop the watch.
  ::signal(SIGTTOU, SIG_IGN);
  ::signal(SIGCHLD, SIG_DFL);
  for (StopSignal& signal : stopSignals) signal.isTaken = !IsIgnored(signal.number);
  TakeStopSignals();
}

void TakeStopSignals() {
  for (const StopSignal& signal : stopSignals) {
    if (signal.isTaken) NoteStopAt(signal.number);
  }
  UnblockStopSignals();
}

void TakeSignalsPassedOnBy(pid_t watcher) {
  startingWatcher = watcher;
}

void RequestStop() {
  stopRequested = true;
  // Without a write the stop is noted, and seen at the next look.
  if (runtime::IsStill(wakePipe.made, wakePipe.writing)) {
    [[maybe_unused]] const ssize_t written = ::write(wakePipe.writing, "", 1);
  }
}

bool StopRequested() {
  return stopRequested;
}

WakeUp StoppableClock::Wait(unsigned milliseconds, int descriptor) {
  const std::int64_t end = runtime::MonotonicMilliseconds() + milliseconds;
  pollfd waited[] = {{wakePipe.reading, POLLIN, 0}, {descriptor, POLLIN, 0}};
  for (std::int64_t left = milliseconds; !stopRequested;) {
    const auto timeout = static_cast<int>(std::clamp<std::int64_t>(left, 0, INT_MAX));
    const int woken = ::poll(waited, std::size(waited), timeout);
    // The system could not even wait.
    if (woken < 0 && errno != EINTR) PauseFor(left);
    if (woken > 0) {
      if (waited[1].revents == POLLIN && !stopRequested) return WakeUp::kReadable;
      // A descriptor that something else closed, or opened anew, must not make a wait a busy loop.
      // So whatever is no plain news is not waited for any longer.
      for (pollfd& one : waited) {
        if (one.revents != 0) one.fd = kNoDescriptor;
      }
    }
    left = end - runtime::MonotonicMilliseconds();
    if (left <= 0) break;
  }
  return stopRequested ? WakeUp::kStop : WakeUp::kTimePassed;
}

}  // namespace qixx::watch
