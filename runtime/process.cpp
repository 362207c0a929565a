#include "runtime/process.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <initializer_list>
#include <optional>

#include "runtime/children.h"
#include "runtime/clock.h"
#include "runtime/file_place.h"
#include "runtime/loader.h"
#include "runtime/notice.h"
#include "runtime/product.h"
#include "runtime/scarce_means.h"
#include "runtime/secrets.h"
#include "runtime/text.h"
#include "runtime/trace.h"

namespace qixx::runtime {
namespace {

/// A shorter quoted token keeps its quotes.
constexpr std::size_t kShortestUnquoted = 4;

constexpr std::int64_t kWaitBriefly = 1;
constexpr std::int64_t kBriefPolls = 10;
constexpr std::int64_t kBriefPause = 99;  // milliseconds
constexpr std::int64_t kLongPause = 999;  // milliseconds
constexpr std::int64_t kStartPause = 99;  // milliseconds

constexpr int kEndTests = 10;
constexpr std::int64_t kEndPause = 333;  // milliseconds

constexpr mode_t kOutputMode = S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH;

// --- splitting --------------------------------------------------------------------------------

/// Where a token stands in its line, the quotes that it loses left out.
struct Token {
  std::size_t begin = 0;
  std::size_t length = 0;
};

/// The token at or behind `at`, which moves behind it; nothing when only blanks are left.
std::optional<Token> NextToken(std::string_view line, std::size_t& at) {
  const std::size_t begin = line.find_first_not_of(' ', at);
  if (begin == std::string_view::npos) return std::nullopt;
  const bool quoted = line[begin] == '"';
  const std::size_t stop = line.find(quoted ? '"' : ' ', begin + 1);
  const bool closed = stop != std::string_view::npos;
  at = closed ? stop + (quoted ? 1 : 0) : line.size();

  const std::string_view whole = line.substr(begin, at - begin);
  // A quoted option keeps its quotes, as intended: the programs of the suite look for them.
  const bool unquote =
      quoted && whole.size() >= kShortestUnquoted && whole.back() == '"' && whole[1] != '-';
  return unquote ? Token{begin + 1, whole.size() - 2} : Token{begin, whole.size()};
}

/// The program and what stands in `content` at the places of the tokens of `line`, a text of the
/// same length.
std::vector<std::string> SplitAlike(std::string_view program, std::string_view line,
                                    std::string_view content) {
  std::vector<std::string> entries;
  if (!program.empty()) entries.emplace_back(program);
  std::size_t at = 0;
  while (const std::optional<Token> token = NextToken(line, at)) {
    entries.emplace_back(content.substr(token->begin, token->length));
  }
  return entries;
}

// --- the output -------------------------------------------------------------------------------

/// The file behind ">", found before the fork and opened behind it.
struct Output {
  FoundFile found;
  std::string shown;  ///< as the command names it, secrets masked
};

bool IsTrusted(uid_t owner) {
  return owner == 0 || owner == ::geteuid();
}

/// Why the output may not go to a file; null when it may. Where somebody else may put or move
/// things, they could have given its name to a file that they cannot write, or to a pipe that keeps
/// the program waiting for them.
const char* FaultOfOutput(const struct stat& file, const struct stat& folder) {
  if (S_ISLNK(file.st_mode)) return "a link";  // put there behind the search
  if (S_ISFIFO(file.st_mode) && !IsTrusted(file.st_uid)) return "a pipe of somebody else";
  const bool isOurs = IsTrusted(folder.st_uid) && (folder.st_mode & (S_IWGRP | S_IWOTH)) == 0;
  if (isOurs) return nullptr;
  if (!S_ISREG(file.st_mode)) return "no regular file";
  if (file.st_nlink > 1) return "a file with a second name";
  if (file.st_nlink == 0) return "a file that was removed";
  const bool isAllowed = file.st_uid == ::geteuid() || file.st_uid == folder.st_uid;
  return isAllowed ? nullptr : "a file of somebody else";
}

/// Opens the output in its folder. Negative when that fails, with `fault` when it is refused. Waits
/// for nothing but the reader of a pipe that nobody else can have put there.
int OpenOutput(int folder, const char* name, const char*& fault) {
  // The links of /proc are nobody's, and lead to what the service itself has open.
  const bool inProc = IsInProc(folder);
  const int flags = O_WRONLY | O_NOCTTY | (inProc ? 0 : O_NOFOLLOW);
  struct stat place {};
  struct stat file {};
  if (::fstat(folder, &place) != 0) return -1;
  int output = ::openat(folder, name, flags | O_CREAT | O_NONBLOCK, kOutputMode);
  const int error = errno;
  const bool known = output >= 0
                         ? ::fstat(output, &file) == 0
                         : ::fstatat(folder, name, &file, inProc ? 0 : AT_SYMLINK_NOFOLLOW) == 0;
  if (known) fault = FaultOfOutput(file, place);
  if (output < 0) {
    const bool waits = error == ENXIO && known && fault == nullptr && S_ISFIFO(file.st_mode);
    return waits ? ::openat(folder, name, flags) : -1;
  }
  const bool usable = known && fault == nullptr && ::fcntl(output, F_SETFL, 0) == 0 &&
                      (!S_ISREG(file.st_mode) || file.st_size == 0 || ::ftruncate(output, 0) == 0);
  if (usable) return output;
  ::close(output);
  return -1;
}

// --- the child --------------------------------------------------------------------------------

/// All that the child needs, made before the fork: another thread may hold the lock of the heap
/// while the process is copied.
class ChildPlan {
 public:
  ChildPlan(std::string_view program, std::string_view arguments)
      : entries_(SplitArguments(program, arguments)) {
    if (TraceIsOn()) {
      shown_ = SplitAlike(MaskSecrets(program), arguments, MaskSecrets(arguments));
    }
    if (!entries_.empty()) program_ = MaskSecrets(entries_.front());
    for (std::string& entry : entries_) vector_.push_back(entry.data());
    // Entry 0 is no redirection.
    if (entries_.size() >= 3 && entries_[entries_.size() - 2] == ">") {
      output_ = {FindFile(entries_.back()),
                 SplitAlike({}, arguments, MaskSecrets(arguments)).back()};
      vector_.resize(entries_.size() - 2);
    }
    vector_.push_back(nullptr);
  }

  /// Entry 0 with secrets masked.
  [[nodiscard]] const std::string& Program() const { return program_; }
  [[nodiscard]] bool IsEmpty() const { return entries_.empty(); }
  /// The entries without a redirection, ended by null.
  [[nodiscard]] char* const* Vector() const { return vector_.data(); }
  /// Where the child's output goes, nothing without a redirection.
  [[nodiscard]] const std::optional<Output>& Redirection() const { return output_; }
  /// All entries with secrets masked; empty while the trace is off.
  [[nodiscard]] const std::vector<std::string>& Shown() const { return shown_; }

 private:
  std::vector<std::string> entries_;
  std::string program_;
  std::vector<std::string> shown_;
  std::vector<char*> vector_;
  std::optional<Output> output_;
};

void TraceArguments(const std::vector<std::string>& shown) {
  int number = 0;
  for (const std::string& entry : shown) {
    TraceWrite("Helper - Argument %d: '%s'", number++, entry.c_str());
  }
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

/// Whether the program gets the descriptor, under its number.
bool PassOn(int descriptor) {
  if (descriptor == kPassedDescriptor) return ::fcntl(descriptor, F_SETFD, 0) == 0;
  return descriptor >= 0 && ::dup2(descriptor, kPassedDescriptor) == kPassedDescriptor;
}

/// For kernels without close_range (before Linux 5.9). The first descriptor is closed right away,
/// so that there is one for the list. opendir would allocate.
void CloseListedDescriptors(int first) {
  ::close(first);
  const int list = ::open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  alignas(dirent64) char entries[1024];
  ssize_t length = 0;
  while ((length = ::getdents64(list, entries, sizeof entries)) > 0) {
    for (ssize_t at = 0; at < length;) {
      const auto* const entry = reinterpret_cast<const dirent64*>(entries + at);
      const auto number = static_cast<int>(ParseDecimal(entry->d_name));
      if (number >= first && number != list) ::close(number);
      at += entry->d_reclen;
    }
  }
  ::close(list);
}

/// Closes what a loaded library may have left open without close-on-exec.
void CloseDescriptorsFrom(unsigned first) {
#ifdef SYS_close_range
  if (::syscall(SYS_close_range, first, UINT_MAX, 0U) == 0) return;
#endif
  CloseListedDescriptors(static_cast<int>(first));
}

/// Says the parts as one line on standard error, without an allocation.
void NotifyParts(std::initializer_list<std::string_view> parts) {
  char notice[kMaxNotice];
  std::size_t length = 0;
  for (const std::string_view part : parts) {
    length += part.copy(notice + length, sizeof notice - length);
  }
  Notify({notice, length});
}

/// Sends standard output, where the file's folder is until then, to the file, or nowhere when it
/// cannot be opened: the program is started all the same.
void RedirectOutput(const ChildPlan& plan, const Output& to) {
  const FilePlace& place = to.found.real;
  const char* fault = nullptr;
  int output = -1;
  if (place.Folder() >= 0) output = OpenOutput(STDOUT_FILENO, place.Name().c_str(), fault);
  if (fault != nullptr) TraceRefusal(to.shown, fault);
  if (fault == nullptr) fault = to.found.refusal;  // traced when it was found
  if (fault != nullptr) {
    ::signal(SIGPIPE, SIG_IGN);  // nor may a reader that is gone keep the program from starting
    NotifyParts({"'", plan.Program(), "' without its output, '", to.shown, "' is ", fault});
    ::signal(SIGPIPE, SIG_DFL);
  }
  if (output < 0) output = ::open("/dev/null", O_WRONLY);
  if (output < 0 || output == STDOUT_FILENO) return;
  ::dup2(output, STDOUT_FILENO);
  if (output > STDERR_FILENO) ::close(output);
}

/// Tells that the program could not be started. Standard error comes last: a reader that is gone
/// ends the child, which no longer ignores SIGPIPE.
[[noreturn]] void EndWithoutProgram(const ChildPlan& plan, int error) {
  const char* const reason = ErrorText(error);
  TraceWrite("Helper - Failed to start '%s': %s", plan.Program().c_str(), reason);
  TraceWrite("Helper - Child process done");
  NotifyParts({"'", plan.Program(), "' not started: ", reason});
  ::_exit(0);
}

/// Turns the child into the program. Nothing here waits for another thread or allocates. The
/// redirection comes last: opening a pipe waits for its reader, and a child that waits must obey
/// signals and hold nothing of the service open.
[[noreturn]] void RunChild(const ChildPlan& plan, int passed) {
  TraceWrite("Helper - Child process started");
  ::setsid();
  if (!plan.IsEmpty()) {
    TraceArguments(plan.Shown());
    RestoreSignals();
    const std::optional<Output>& output = plan.Redirection();
    // The one descriptor that the output's folder can have while all others are closed.
    if (output) ::dup2(output->found.real.Folder(), STDOUT_FILENO);
    CloseDescriptorsFrom((PassOn(passed) ? kPassedDescriptor : STDERR_FILENO) + 1);
    if (output) RedirectOutput(plan, *output);
    ::execv(plan.Vector()[0], plan.Vector());
    EndWithoutProgram(plan, errno);
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

/// Returns in the parent only; without a child the negative error number.
pid_t ForkChild(const ChildPlan& plan, int passed) {
  const SignalsBlocked blocked;
  pid_t child = -1;
  {
    const TraceForkLock held;
    child = ::fork();
    if (child < 0) child = -errno;
  }
  if (child == 0) RunChild(plan, passed);
  return child;
}

/// What is known of the child at the end of the wait.
ChildState PollChild(pid_t child, std::int64_t waitMode) {
  const bool briefly = waitMode == kWaitBriefly;
  const std::int64_t pause = briefly ? kBriefPause : kLongPause;
  for (std::int64_t polls = briefly ? kBriefPolls : waitMode; polls > 0; --polls) {
    const ChildState state = CheckChild(child);
    if (state.result != 0) {
      TraceWrite("Helper - Child process finished");
      return state;
    }
    TraceWrite("Helper - Wait for process finished (%d)", static_cast<int>(polls));
    SleepMilliseconds(pause);
  }
  return PeekChild(child);
}

/// A program that has failed so soon. Allocates nothing: whoever runs out of memory would take the
/// program for one that was not started.
void TellFailure(const ChildPlan& plan, const ChildState& state) {
  if (state.result <= 0 || state.status == 0) return;
  const bool bySignal = WIFSIGNALED(state.status);
  const int number = bySignal ? WTERMSIG(state.status) : WEXITSTATUS(state.status);
  const char* const how = bySignal ? "was ended by signal" : "ended with exit code";
  TraceWrite("Helper - Process %d %s %d", static_cast<int>(state.result), how, number);
  NotifyParts({"'", plan.Program(), "' ", how, " ", std::to_string(number)});  // a short text
}

/// 0 and negative ids would reach whole groups of processes.
bool IsProcessId(std::uint64_t processId) {
  return processId != 0 && processId <= INT_MAX;
}

}  // namespace

bool LaunchProcess(const std::string& program, std::string_view arguments, std::int64_t waitMode,
                   int passed) {
  TraceWrite("Helper - Start application: '%s' '%s'", MaskedText(program).Text(),
             MaskedText(arguments).Text());
  const ChildPlan plan(program, arguments);
  ChildPlace place;
  const pid_t child = ForkChild(plan, passed);
  if (child < 0) {
    TraceWrite("Helper - Failed to fork process");
    ScarceMeans::Note(-child);
    NotifyOnce("'" + plan.Program() + "' not started: " + std::string(ErrorText(-child)));
    return false;
  }
  place.Register(child);
  TraceWrite("Helper - Forked process id %d", static_cast<int>(child));
  SleepMilliseconds(kStartPause);
  TellFailure(plan, PollChild(child, waitMode));
  return true;
}

std::vector<std::string> SplitArguments(std::string_view program, std::string_view arguments) {
  return SplitAlike(program, arguments, arguments);
}

bool IsProcessRunning(std::uint64_t processId) {
  const int id = static_cast<int>(processId);
  TraceWrite("Helper - Process %d running ...", id);
  const ChildState state = IsProcessId(processId) ? CheckChild(id) : ChildState{};
  if (state.result >= 0) {
    TraceWrite("Helper - Waitpid %d (%d)", static_cast<int>(state.result), state.status);
  }
  const bool running = state.result == 0;
  TraceWrite("Helper - Process %d running ... %s", id, running ? "TRUE" : "FALSE");
  return running;
}

bool EndProcess(std::uint64_t processId) {
  TraceWrite("Helper - End process %d", static_cast<int>(processId));
  if (!IsProcessId(processId)) return false;
  ::kill(static_cast<pid_t>(processId), SIGKILL);
  for (int test = 1; test <= kEndTests; ++test) {
    if (!IsProcessRunning(processId)) return test < kEndTests;
    SleepMilliseconds(kEndPause);
  }
  return false;
}

bool StartApplication(std::string_view arguments, bool startProgram) {
  if (!startProgram) {
    CallAdminEntry(arguments);
    return true;
  }
  std::string program = InstallDirectory();
  if (program.size() > 1) program.pop_back();
  program.resize(program.rfind('/') + 1);
  program.append("bin/").append(Product().mainProgram);
  return LaunchProcess(program, arguments);
}

}  // namespace qixx::runtime
