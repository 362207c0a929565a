#include "runtime/process.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <optional>
#include <utility>

#include "runtime/children.h"
#include "runtime/clock.h"
#include "runtime/descriptor.h"
#include "runtime/file_place.h"
#include "runtime/files.h"
#include "runtime/loader.h"
#include "runtime/notice.h"
#include "runtime/product.h"
#include "runtime/scarce_means.h"
#include "runtime/secrets.h"
#include "runtime/sync.h"
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

// --- splitting --------------------------------------------------------------------------------

/// A token without the quotes that it loses.
std::string_view Unquoted(std::string_view token) {
  const bool isQuoted =
      token.size() >= kShortestUnquoted && token.starts_with('"') && token.ends_with('"');
  // A quoted option keeps its quotes, as intended: the programs of the suite look for them.
  return isQuoted && token[1] != '-' ? token.substr(1, token.size() - 2) : token;
}

/// The program and what stands in `content` at the places of the tokens of `line`, a text of the
/// same length.
std::vector<std::string> SplitAlike(std::string_view program, std::string_view line,
                                    std::string_view content) {
  std::vector<std::string> entries;
  if (!program.empty()) entries.emplace_back(program);
  const char* const begin = line.data();
  while (const auto token = TakeToken(line)) {
    const std::string_view entry = Unquoted(*token);
    const auto place = static_cast<std::size_t>(entry.data() - begin);
    entries.emplace_back(content.substr(place, entry.size()));
  }
  return entries;
}

// --- the output -------------------------------------------------------------------------------

/// The file behind ">", found before the fork and opened behind it.
struct Output {
  FoundFile found;
  std::string shown;  ///< as the command names it, secrets masked
};

/// Why the output may not go to a file; null when it may. Where somebody else may put or move
/// things, they could have given its name to a file that they cannot write, or to a pipe that keeps
/// the program waiting for them.
const char* FaultOfOutput(const struct stat& file, const struct stat& folder) {
  if (S_ISLNK(file.st_mode)) return "a link";  // put there behind the search
  const bool isTrusted = IsTrustedOwner(file.st_uid);
  if (S_ISFIFO(file.st_mode) && !isTrusted) return "a pipe of somebody else";
  if (DiskSize(file) > kMaxFileSize && !isTrusted) return "a large file of somebody else";
  const bool isOurs = IsTrustedOwner(folder.st_uid) && (folder.st_mode & (S_IWGRP | S_IWOTH)) == 0;
  if (isOurs) return nullptr;
  if (!S_ISREG(file.st_mode)) return "no regular file";
  if (file.st_nlink > 1) return "a file with a second name";
  if (file.st_nlink == 0) return "a file that was removed";
  const bool isAllowed = file.st_uid == ::geteuid() || file.st_uid == folder.st_uid;
  return isAllowed ? nullptr : "a file of somebody else";
}

/// Opens the output in its folder. Not open when that fails, with errno, or `fault` when it is
/// refused. Waits for nothing but the reader of a pipe that nobody else can have put there.
Descriptor OpenOutput(int folder, const char* name, const char*& fault) {
  // The links of /proc are nobody's, and lead to what the service itself has open.
  const bool inProc = IsInProc(folder);
  const int flags = O_WRONLY | O_NOCTTY | (inProc ? 0 : O_NOFOLLOW);
  struct stat place {};
  struct stat file {};
  if (::fstat(folder, &place) != 0) return {};
  Descriptor output(::openat(folder, name, flags | O_NONBLOCK));
  // Making one waits for whoever holds the folder.
  if (!output.IsOpen() && errno == ENOENT) {
    output = Descriptor(::openat(folder, name, flags | O_CREAT | O_NONBLOCK, DEFFILEMODE));
  }
  const int error = errno;
  const bool known = output.IsOpen()
                         ? ::fstat(output.Get(), &file) == 0
                         : ::fstatat(folder, name, &file, inProc ? 0 : AT_SYMLINK_NOFOLLOW) == 0;
  if (known) fault = FaultOfOutput(file, place);
  errno = error;
  if (!known || fault != nullptr) return {};
  const bool waits = !output.IsOpen() && error == ENXIO && S_ISFIFO(file.st_mode);
  if (waits) return Descriptor(::openat(folder, name, flags));
  if (!output.IsOpen()) return {};
  const bool usable =
      ::fcntl(output.Get(), F_SETFL, 0) == 0 &&
      (!S_ISREG(file.st_mode) || file.st_size == 0 || ::ftruncate(output.Get(), 0) == 0);
  return usable ? std::move(output) : Descriptor();
}

// --- the child --------------------------------------------------------------------------------

/// The service's environment with the variables ("NAME=value"), each in the place of its namesake,
/// ended by null.
std::vector<const char*> EnvironmentWith(const std::vector<std::string>& variables) {
  std::vector<const char*> all;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    all.push_back(*entry);
  }
  for (const std::string& variable : variables) {
    const std::string head = variable.substr(0, variable.find('=') + 1);
    const auto namesake = std::ranges::find_if(
        all, [&head](std::string_view entry) { return entry.starts_with(head); });
    if (namesake == all.end()) {
      all.push_back(variable.c_str());
    } else {
      *namesake = variable.c_str();
    }
  }
  all.push_back(nullptr);
  return all;
}

/// All that the child needs, made before the fork: another thread may hold the lock of the heap
/// while the process is copied.
struct ChildPlan {
  ChildPlan(std::string_view programPath, std::string_view arguments, const KeptChild* kept)
      : entries(SplitArguments(programPath, arguments)),
        shown(SplitAlike(MaskSecrets(programPath), arguments, MaskSecrets(arguments))),
        passed(kept != nullptr ? kept->passed : -1) {
    if (kept != nullptr) environment = EnvironmentWith(kept->variables);
    if (!entries.empty()) program = MaskSecrets(entries.front());
    for (std::string& entry : entries) vector.push_back(entry.data());
    if (RedirectsOutput(entries)) {
      output = {FindFile(entries.back()), shown.back()};
      vector.resize(entries.size() - 2);
    }
    vector.push_back(nullptr);
  }
  ChildPlan(const ChildPlan&) = delete;
  ChildPlan& operator=(const ChildPlan&) = delete;

  std::vector<std::string> entries;
  std::vector<std::string> shown;        ///< the entries with secrets masked
  std::string program;                   ///< entry 0 with secrets masked
  std::vector<char*> vector;             ///< the entries without a redirection, ended by null
  std::optional<Output> output;          ///< nothing without a redirection
  int passed;                            ///< negative for none
  std::vector<const char*> environment;  ///< empty for the service's own
};

/// Gives the program the signals of a fresh process. What the service's own caller had switched off
/// (SIGHUP below nohup) stays so; SIGPIPE, SIGXFSZ, SIGTTOU and SIGCHLD may be the service's own
/// doing. What came since the fork was sent to the service's whole group and is not the program's:
/// a stop lets the commands that were begun end in peace.
void RestoreSignals() {
  for (int number = 1; number < NSIG; ++number) {
    struct sigaction action {};
    if (::sigaction(number, nullptr, &action) != 0) continue;
    const bool ignored = action.sa_handler == SIG_IGN;
    const bool ours =
        number == SIGPIPE || number == SIGXFSZ || number == SIGTTOU || number == SIGCHLD;
    if (ignored && !ours) continue;
    ::signal(number, SIG_IGN);  // drops one that waits
    ::signal(number, SIG_DFL);
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

void NotifyWithoutOutput(const ChildPlan& plan, const Output& to, const char* verb,
                         const char* reason) {
  ::signal(SIGPIPE, SIG_IGN);  // nor may a reader that is gone keep the program from starting
  Notify({"'", plan.program, "' without its output, '", to.shown, "' ", verb, reason});
  ::signal(SIGPIPE, SIG_DFL);
}

/// Sends standard output, where the file's folder is until then, to the file, or nowhere when it
/// cannot be opened: the program is started all the same.
void RedirectOutput(const ChildPlan& plan, const Output& to) {
  const FilePlace& place = to.found.real;
  const char* fault = nullptr;
  Descriptor output;
  errno = ENOENT;
  if (place.Folder() >= 0) output = OpenOutput(STDOUT_FILENO, place.Name().c_str(), fault);
  const int error = errno;
  if (fault != nullptr) TraceRefusal(to.shown, fault);
  if (fault == nullptr) fault = to.found.refusal;  // traced when it was found
  if (fault != nullptr) {
    NotifyWithoutOutput(plan, to, "is ", fault);
  } else if (!output.IsOpen()) {
    NotifyWithoutOutput(plan, to, "cannot be opened: ", ErrorText(error));
  }
  if (!output.IsOpen()) output = Descriptor(::open("/dev/null", O_WRONLY));
  ::dup2(output.Get(), STDOUT_FILENO);
  // One that was closed before may stay: it is a standard one.
  if (output.Get() <= STDERR_FILENO) static_cast<void>(output.Release());
}

/// Tells that the program could not be started. Standard error comes last: a reader that is gone
/// ends the child, which no longer ignores SIGPIPE.
[[noreturn]] void EndWithoutProgram(const ChildPlan& plan, int error) {
  const char* const reason = ErrorText(error);
  TraceWrite("Helper - Failed to start '%s': %s", plan.program.c_str(), reason);
  TraceWrite("Helper - Child process done");
  Notify({"'", plan.program, "' not started: ", reason});
  ::_exit(0);
}

/// Turns the child into the program. Nothing here waits for another thread or allocates. The
/// redirection comes last: opening a pipe waits for its reader, and a child that waits must obey
/// signals and hold nothing of the service open.
[[noreturn]] void RunChild(const ChildPlan& plan) {
  TraceWrite("Helper - Child process started");
  ::setsid();
  if (!plan.entries.empty()) {
    int number = 0;
    for (const std::string& entry : plan.shown) {
      TraceWrite("Helper - Argument %d: '%s'", number++, entry.c_str());
    }
    RestoreSignals();
    // The one descriptor that the output's folder can have while all others are closed.
    if (plan.output) ::dup2(plan.output->found.real.Folder(), STDOUT_FILENO);
    // A loaded library may have left some open without close-on-exec.
    ::closefrom((PassOn(plan.passed) ? kPassedDescriptor : STDERR_FILENO) + 1);
    if (plan.output) RedirectOutput(plan, *plan.output);
    ::execve(
        plan.vector[0], plan.vector.data(),
        plan.environment.empty() ? environ : const_cast<char* const*>(plan.environment.data()));
    EndWithoutProgram(plan, errno);
  }
  TraceWrite("Helper - Child process done");
  ::_exit(0);
}

// --- the parent -------------------------------------------------------------------------------

/// Returns in the parent only; without a child the negative error number. No handler of the
/// service's runs in the child: signals are held back. On Linux sigprocmask acts on the calling
/// thread.
pid_t ForkChild(const ChildPlan& plan) {
  sigset_t all;
  sigset_t before;
  ::sigfillset(&all);
  pid_t child = -1;
  {
    const CriticalScope held(&TraceLock());
    ::sigprocmask(SIG_SETMASK, &all, &before);
    child = ::fork();
    if (child < 0) child = -errno;
  }
  if (child == 0) RunChild(plan);
  ::sigprocmask(SIG_SETMASK, &before, nullptr);
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
  Notify({"'", plan.program, "' ", how, " ", std::to_string(number)});  // a short text
}

/// The child's id; 0 when the fork failed.
pid_t Launch(const std::string& program, std::string_view arguments, std::int64_t waitMode,
             const KeptChild* kept) {
  TraceWrite("Helper - Start application: '%s' '%s'", MaskedText(program).Text(),
             MaskedText(arguments).Text());
  const ChildPlan plan(program, arguments, kept);
  ChildPlace place;
  const pid_t child = ForkChild(plan);
  if (child < 0) {
    TraceWrite("Helper - Failed to fork process");
    ScarceMeans::Note(-child);
    NotifyOnce("'" + plan.program + "' not started: " + std::string(ErrorText(-child)));
    return 0;
  }
  place.Register(child, kept != nullptr);
  TraceWrite("Helper - Forked process id %d", static_cast<int>(child));
  SleepMilliseconds(kStartPause);
  TellFailure(plan, PollChild(child, waitMode));
  return child;
}

/// 0 and negative ids would reach whole groups of processes.
bool IsProcessId(std::uint64_t processId) {
  return processId != 0 && processId <= INT_MAX;
}

}  // namespace

bool LaunchProcess(const std::string& program, std::string_view arguments, std::int64_t waitMode) {
  return Launch(program, arguments, waitMode, nullptr) != 0;
}

pid_t LaunchKept(const std::string& program, std::string_view arguments, const KeptChild& kept) {
  return Launch(program, arguments, kWaitNone, &kept);
}

std::optional<std::string_view> TakeToken(std::string_view& line) {
  line = SkipBlanks(line);
  if (line.empty()) return std::nullopt;
  const bool quoted = line.front() == '"';
  const std::size_t stop = std::min(line.find(quoted ? '"' : ' ', 1), line.size());
  const std::string_view token = line.substr(0, stop + (quoted ? 1 : 0));
  line.remove_prefix(token.size());
  return token;
}

std::vector<std::string> SplitArguments(std::string_view program, std::string_view arguments) {
  return SplitAlike(program, arguments, arguments);
}

bool RedirectsOutput(const std::vector<std::string>& entries) {
  return entries.size() >= 3 && entries[entries.size() - 2] == ">";
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
