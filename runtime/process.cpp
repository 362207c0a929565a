#include "runtime/process.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <memory>
#include <new>
#include <string_view>

#include "runtime/children.h"
#include "runtime/files.h"
#include "runtime/loader.h"
#include "runtime/secrets.h"
#include "runtime/text.h"
#include "runtime/trace.h"

namespace qixx::runtime {
namespace {

/// A shorter quoted token keeps its quotes.
constexpr std::size_t kShortestUnquoted = 4;

constexpr std::int64_t kWaitBriefly = 1;
constexpr std::int64_t kBriefPolls = 10;
constexpr long kBriefPause = 99;  // milliseconds
constexpr long kLongPause = 999;  // milliseconds
constexpr long kStartPause = 99;  // milliseconds

constexpr mode_t kOutputMode = S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH;

// --- splitting --------------------------------------------------------------------------------

struct VectorDeleter {
  void operator()(char** vector) const { FreeArguments(vector); }
};
using ArgumentVector = std::unique_ptr<char*[], VectorDeleter>;

/// Where a token stands in its line, the quotes that it loses left out.
struct Token {
  std::size_t begin = 0;
  std::size_t length = 0;
};

/// Finds the token at or behind `at` and moves `at` behind it; false when only blanks are left.
bool NextToken(std::string_view line, std::size_t& at, Token& token) {
  const std::size_t begin = line.find_first_not_of(' ', at);
  if (begin == std::string_view::npos) return false;
  const bool quoted = line[begin] == '"';
  std::size_t end = line.find(quoted ? '"' : ' ', begin + 1);
  if (end == std::string_view::npos) {
    end = line.size();
  } else if (quoted) {
    ++end;
  }
  at = end;

  const std::string_view whole = line.substr(begin, end - begin);
  // A quoted option keeps its quotes, as intended: the programs of the suite look for them.
  const bool unquote =
      quoted && whole.size() >= kShortestUnquoted && whole.back() == '"' && whole[1] != '-';
  token = unquote ? Token{begin + 1, whole.size() - 2} : Token{begin, whole.size()};
  return true;
}

std::size_t CountTokens(std::string_view line) {
  std::size_t count = 0;
  std::size_t at = 0;
  for (Token token; NextToken(line, at, token);) ++count;
  return count;
}

bool Append(char** vector, std::size_t& count, std::string_view text) {
  char* const copy = new (std::nothrow) char[text.size() + 1];
  if (copy == nullptr) return false;
  std::copy(text.begin(), text.end(), copy);
  copy[text.size()] = '\0';
  vector[count++] = copy;
  return true;
}

/// Splits `line` and fills the entries with what stands at the same places of `content`, a text of
/// the same length. Null when there is no entry, or no memory.
ArgumentVector BuildVector(const char* program, std::string_view line, std::string_view content,
                           std::size_t& count) {
  count = 0;
  const bool named = !ViewOf(program).empty();
  const std::size_t entries = CountTokens(line) + (named ? 1 : 0);
  if (entries == 0) return nullptr;
  ArgumentVector vector(new (std::nothrow) char* [entries + 1] {});
  bool complete = vector != nullptr && (!named || Append(vector.get(), count, program));
  std::size_t at = 0;
  for (Token token; complete && NextToken(line, at, token);) {
    complete = Append(vector.get(), count, content.substr(token.begin, token.length));
  }
  if (complete) return vector;
  count = 0;
  return nullptr;
}

// --- the child --------------------------------------------------------------------------------

/// All that the child needs, made before the fork: another thread may hold the lock of the heap
/// while the process is copied.
struct ChildPlan {
  ChildPlan(const char* program, const char* arguments)
      : vector(BuildVector(program, ViewOf(arguments), ViewOf(arguments), count)) {
    if (!TraceIsOn()) return;
    const MaskedText maskedProgram(program);
    const MaskedText masked(arguments);
    std::size_t ignored = 0;
    if (masked.Text() != nullptr || arguments == nullptr) {
      shown = BuildVector(maskedProgram.Text(), ViewOf(arguments), ViewOf(masked.Text()), ignored);
    }
  }

  /// The file that the child's output goes to, null for none. Entry 0 is no redirection.
  [[nodiscard]] const char* Output() const {
    const bool redirected = count >= 3 && std::string_view(vector[count - 2]) == ">";
    return redirected ? vector[count - 1] : nullptr;
  }

  std::size_t count = 0;
  ArgumentVector vector;
  ArgumentVector shown;  ///< for the trace: the same entries with secrets masked, null for none
};

void TraceArguments(const ArgumentVector& shown) {
  if (shown == nullptr) return;
  for (int i = 0; shown[static_cast<std::size_t>(i)] != nullptr; ++i) {
    TraceWrite("Helper - Argument %d: '%s'", i, shown[static_cast<std::size_t>(i)]);
  }
}

/// Sends standard output to the file, or nowhere when it cannot be opened: the program is started
/// all the same. Opened without close-on-exec, because it may be the descriptor 1 itself.
void RedirectOutput(const char* file) {
  int output = ::open(file, O_WRONLY | O_CREAT | O_TRUNC | O_NOCTTY, kOutputMode);
  if (output < 0) output = ::open("/dev/null", O_WRONLY);
  if (output < 0 || output == STDOUT_FILENO) return;
  ::dup2(output, STDOUT_FILENO);
  if (output > STDERR_FILENO) ::close(output);
}

/// Gives the program the signals of a fresh process. What the service's own caller had switched off
/// (SIGHUP below nohup) stays so; SIGPIPE, SIGXFSZ and SIGCHLD may be the service's own doing.
void RestoreSignals() {
  for (int number = 1; number < NSIG; ++number) {
    struct sigaction action {};
    if (::sigaction(number, nullptr, &action) != 0) continue;
    const bool ignored = action.sa_handler == SIG_IGN;
    const bool ours = number == SIGPIPE || number == SIGXFSZ || number == SIGCHLD;
    if (ignored && !ours) continue;
    action = {};
    action.sa_handler = SIG_DFL;
    ::sigaction(number, &action, nullptr);
  }
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

/// Closes what a loaded library may have left open without close-on-exec.
void CloseOtherDescriptors() {
  constexpr unsigned kFirst = STDERR_FILENO + 1;
#ifdef SYS_close_range
  if (::syscall(SYS_close_range, kFirst, UINT_MAX, 0U) == 0) return;
#endif
  DIR* const directory = ::opendir("/proc/self/fd");
  if (directory == nullptr) return;
  while (const dirent* entry = ::readdir(directory)) {
    const auto number = ParseDecimal(entry->d_name);
    if (number < kFirst || number > INT_MAX) continue;
    if (static_cast<int>(number) != ::dirfd(directory)) ::close(static_cast<int>(number));
  }
  ::closedir(directory);
}

/// Turns the child into the program. Nothing here waits for another thread. The memory of the plan
/// goes with the process. The redirection comes last: opening a pipe waits for its reader, and a
/// child that waits must obey signals and hold nothing of the service open.
[[noreturn]] void RunChild(const ChildPlan& plan) {
  TraceWrite("Helper - Child process started");
  ::setsid();
  if (plan.vector != nullptr) {
    TraceArguments(plan.shown);
    RestoreSignals();
    CloseOtherDescriptors();
    if (const char* const output = plan.Output(); output != nullptr) {
      plan.vector[plan.count - 2] = nullptr;
      RedirectOutput(output);
    }
    ::execv(plan.vector[0], plan.vector.get());
  }
  TraceWrite("Helper - Child process done");
  ::_exit(0);
}

// --- the parent -------------------------------------------------------------------------------

/// Holds all signals back for a scope, so that no handler of the service runs in the child. On
/// Linux sigprocmask acts on the calling thread.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    ::sigfillset(&all);
    ::sigprocmask(SIG_SETMASK, &all, &before_);
  }
  ~SignalsBlocked() { ::sigprocmask(SIG_SETMASK, &before_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t before_;
};

/// Returns in the parent only.
pid_t ForkChild(const ChildPlan& plan) {
  const SignalsBlocked blocked;
  TraceLockForFork();
  const pid_t child = ::fork();
  TraceUnlockAfterFork();
  if (child == 0) RunChild(plan);
  return child;
}

void SleepMilliseconds(long milliseconds) {
  timespec left{.tv_sec = 0, .tv_nsec = milliseconds * 1000000};
  while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

void PollChild(pid_t child, std::int64_t waitMode) {
  const bool briefly = waitMode == kWaitBriefly;
  const long pause = briefly ? kBriefPause : kLongPause;
  for (std::int64_t polls = briefly ? kBriefPolls : waitMode; polls > 0; --polls) {
    int status = 0;
    if (CheckChild(child, status) != 0) {
      TraceWrite("Helper - Child process finished");
      return;
    }
    TraceWrite("Helper - Wait for process finished (%d)", static_cast<int>(polls));
    SleepMilliseconds(pause);
  }
}

}  // namespace

int LaunchProcess(const char* program, const char* arguments, std::int64_t waitMode, bool /*show*/,
                  std::uint64_t* /*processId*/) {
  TraceWrite("Helper - Start application: '%s' '%s'",
             MaskedText(program == nullptr ? "" : program).Text(), MaskedText(arguments).Text());
  const ChildPlan plan(program, arguments);
  const pid_t child = ForkChild(plan);
  if (child < 0) {
    TraceWrite("Helper - Failed to fork process");
    return 0;
  }
  RegisterChild(child);
  TraceWrite("Helper - Forked process id %d", static_cast<int>(child));
  SleepMilliseconds(kStartPause);
  PollChild(child, waitMode);
  return 1;
}

char** SplitArguments(const char* program, const char* arguments, std::size_t& count) {
  const std::string_view line = ViewOf(arguments);
  return BuildVector(program, line, line, count).release();
}

void FreeArguments(char** vector) {
  if (vector == nullptr) return;
  for (char** entry = vector; *entry != nullptr; ++entry) delete[] * entry;
  delete[] vector;
}

bool IsProcessRunning(std::uint64_t processId) {
  const int id = static_cast<int>(processId);
  TraceWrite("Helper - Process %d running ...", id);
  int status = 0;
  const pid_t result = processId <= INT_MAX ? CheckChild(id, status) : -1;
  if (result >= 0) TraceWrite("Helper - Waitpid %d (%d)", static_cast<int>(result), status);
  const bool running = result == 0;
  TraceWrite("Helper - Process %d running ... %s", id, running ? "TRUE" : "FALSE");
  return running;
}

int StartApplication(const char* arguments, bool startProgram) {
  if (!startProgram) {
    CallAdminEntry(arguments);
    return 1;
  }
  std::string_view directory = InstallDirectory();
  if (directory.size() > 1) directory.remove_suffix(1);
  const std::size_t slash = FindCharBack(directory, '/');
  directory = directory.substr(0, slash == std::string_view::npos ? 0 : slash + 1);
  char program[2 * kTextSize];
  std::snprintf(program, sizeof program, "%.*sbin/%s", static_cast<int>(directory.size()),
                directory.data(), Product().mainProgram);
  return LaunchProcess(program, arguments, kWaitNone, false, nullptr);
}

}  // namespace qixx::runtime
