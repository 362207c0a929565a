#include "watch/extra_watchers.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <utility>

#include "config/store.h"
#include "runtime/children.h"
#include "runtime/clock.h"
#include "runtime/descriptor.h"
#include "runtime/no_destructor.h"
#include "runtime/notice.h"
#include "runtime/process.h"
#include "runtime/product.h"
#include "runtime/scarce_means.h"
#include "runtime/secrets.h"
#include "runtime/sync.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "watch/configuration.h"
#include "watch/event_table.h"
#include "watch/guard.h"
#include "watch/stop.h"
#include "watch/watch_main.h"

namespace qixx::watch {
namespace {

constexpr std::string_view kDepthVariable = "watchdepth";
constexpr std::string_view kRoomVariable = "watchroom";
constexpr std::string_view kLinkVariable = "watchlink";
constexpr std::string_view kStayVariable = "watchstay";

constexpr std::int64_t kParentMilliseconds = 333;
/// How long an extra watcher may take to end, as long as a service manager gives the first one.
constexpr std::int64_t kStopMilliseconds = 15'000;
/// A watcher is started again at most once in this time.
constexpr std::int64_t kRestartMilliseconds = 60'000;

std::string VariableName(std::string_view name) {
  return std::string(runtime::Product().prefix).append(name);
}

std::optional<std::uint64_t> ReadVariable(std::string_view name) {
  const char* const value = ::getenv(VariableName(name).c_str());
  if (value == nullptr) return std::nullopt;
  return runtime::ParseDecimal(value);
}

/// For the environment of an extra watcher.
std::string Variable(std::string_view name, std::uint64_t value) {
  return VariableName(name) + "=" + std::to_string(value);
}

// --- the one that started this watcher ----------------------------------------------------------

/// Set before there is a second thread.
struct Parent {
  pid_t process = 0;      ///< 0 for none
  struct stat link = {};  ///< the pipe that it says its goodbye into, which nobody takes out
};
constinit Parent parent;

/// What the link has to tell within that time: POLLIN a goodbye, POLLHUP alone an end without one.
short AskLink(int milliseconds) {
  pollfd link = {runtime::kPassedDescriptor, POLLIN, 0};
  while (::poll(&link, 1, milliseconds) < 0 && errno == EINTR) continue;
  // Of one that a library closed nothing is known.
  return runtime::IsStill(parent.link, runtime::kPassedDescriptor) ? link.revents : short{0};
}

/// A thread of its own, since the main one may be inside a command or the card's library. One that
/// does not come out of there, and that may keep the library from the next watchers, ends all the
/// same.
void* WaitForParent(void* /*argument*/) {
  runtime::ThreadDetachSelf();
  if ((AskLink(-1) & POLLIN) != 0) return nullptr;
  // A library may have closed either end.
  while (::getppid() == parent.process) runtime::SleepMilliseconds(kParentMilliseconds);
  RequestStop();
  runtime::SleepMilliseconds(kStopMilliseconds);
  runtime::Notify({"ended inside a command or the card's library"});
  ::_exit(EXIT_FAILURE);
}

// --- what this watcher has ----------------------------------------------------------------------

/// One that this watcher started, or could not start yet.
struct ExtraWatcher {
  std::string name;
  std::uint64_t room = 0;    ///< how many it may start together with those below it
  std::string command = {};  ///< once it was read; a later start takes the same
  pid_t process = 0;         ///< 0 while there is none that is known to run
  bool isOwed = true;        ///< it is to be started, at once or later
  std::optional<std::int64_t> restarted = {};  ///< when, in milliseconds
};

struct ExtraWatchers {
  std::string program;
  std::uint64_t depth = 0;  ///< of all of them
  std::vector<ExtraWatcher> all;
  bool stay = false;              ///< with them; so do all below
  bool hadConfiguration = false;  ///< when a command was looked up
  /// A pipe whose writing end this process alone has. So the watchers, which read from it, see when
  /// the process ends, whatever ended it.
  runtime::Descriptor reading = {};  ///< kept, so that no write fails
  runtime::Descriptor writing = {};
  struct stat made = {};  ///< what both ends are

  void OpenPipe() {
    int ends[2];
    if (reading.IsOpen() || ::pipe2(ends, O_CLOEXEC) != 0) return;
    reading = runtime::Descriptor(ends[0]);
    writing = runtime::Descriptor(ends[1]);
    made = runtime::StatusOf(writing);
  }
};

/// Never destroyed, because the end of the pipe is that of the process.
ExtraWatchers& Own() {
  static runtime::NoDestructor<ExtraWatchers> watchers;
  return *watchers;
}

// --- starting -----------------------------------------------------------------------------------

/// The path that starts this program once more: its own when that says where it stands, else, for a
/// program found through PATH, the real one. Empty when there is none.
std::string FindOwnProgram(const std::string& ownPath) {
  if (ownPath.find('/') != std::string_view::npos) return ownPath;
  std::error_code error;
  return std::filesystem::read_symlink("/proc/self/exe", error).string();
}

/// The configuration is opened once for each watcher, which also tells whether there is one.
std::string ReadExtraCommand(const std::string& name) {
  config::CConfig config;
  if (!LoadProductConfiguration(config)) return {};
  Own().hadConfiguration = true;
  return ReadFileText(config, kCommandSection, ExtraWatcherEntry(name),
                      kMaxCommandLine - kChildMark.size());
}

/// It stays owed when memory runs out on the way, or when the system has no room for it.
void StartExtraWatcher(ExtraWatcher& watcher) {
  if (watcher.command.empty()) watcher.command = ReadExtraCommand(watcher.name);
  if (watcher.command.empty()) watcher.command = UsualExtraCommand(watcher.name);
  runtime::TraceWrite("Watch - Extra '%s'", runtime::MaskedText(watcher.name).Text());
  Own().OpenPipe();
  runtime::KeptChild child = {
      .passed = runtime::IsStill(Own().made, Own().reading.Get()) ? Own().reading.Get() : -1,
      .variables = {Variable(kDepthVariable, Own().depth), Variable(kRoomVariable, watcher.room)}};
  if (child.passed >= 0) {
    child.variables.push_back(Variable(kLinkVariable, static_cast<std::uint64_t>(::getpid())));
  }
  if (Own().stay) child.variables.push_back(Variable(kStayVariable, 1));
  const runtime::ScarceMeans scarce;
  watcher.process =
      runtime::LaunchKept(Own().program, std::string(kChildMark) + watcher.command, child);
  watcher.isOwed = watcher.process == 0 && scarce.Any();
}

/// As many of the names as there is room for. What is left is split, so that no watcher of the tree
/// has to know what the others start.
std::vector<ExtraWatcher> ShareRoom(std::uint64_t room, std::vector<std::string> names) {
  if (names.size() > room) {
    runtime::TraceWrite("Watch - Extra watchers end at %d in all",
                        static_cast<int>(kMaxExtraWatchers));
    names.resize(static_cast<std::size_t>(room));
  }
  room -= names.size();
  std::vector<ExtraWatcher> watchers;
  std::size_t left = names.size();
  for (std::string& name : names) {
    const std::uint64_t share = room / left--;
    room -= share;
    watchers.push_back({.name = std::move(name), .room = share});
  }
  return watchers;
}

// --- looking after them -------------------------------------------------------------------------

void Tell(const ExtraWatcher& watcher, const std::string& news) {
  const std::string name = runtime::MaskSecrets(watcher.name);
  runtime::TraceWrite("Watch - Extra '%s' %s", name.c_str(), news.c_str());
  runtime::Notify({"extra watcher '", name, "' ", news});
}

/// One that was told to stop by a signal, maybe a second time or before it had handlers for them.
bool WasStopped(int signal) {
  return signal == SIGTERM || signal == SIGINT || signal == SIGHUP;
}

/// One that ended with exit code 0 has nothing to watch, has made its rounds or was told to stop.
/// So has, for all that is known, one whose end a loaded library has taken note of. Any other code
/// is not the watch's own.
void NoteEnd(ExtraWatcher& watcher) {
  const runtime::ChildState state = runtime::TakeMarkedChild(watcher.process);
  if (state.result == 0) return;
  watcher.process = 0;
  if (state.result < 0) return;
  if (WIFSIGNALED(state.status) && !WasStopped(WTERMSIG(state.status))) {
    watcher.isOwed = true;
    Tell(watcher, "was ended by signal " + std::to_string(WTERMSIG(state.status)));
  } else if (WIFEXITED(state.status) && WEXITSTATUS(state.status) != 0) {
    watcher.isOwed = true;
    Tell(watcher, "ended with exit code " + std::to_string(WEXITSTATUS(state.status)));
  }
}

/// One that always crashes does not keep the machine busy. While the configuration is away a
/// watcher would find no commands and end for good.
bool MayStartAgain(const ExtraWatcher& watcher) {
  const bool isTime = !watcher.restarted ||
                      runtime::MonotonicMilliseconds() - *watcher.restarted >= kRestartMilliseconds;
  return isTime && (!Own().hadConfiguration || HasProductConfiguration());
}

void StartAgain(ExtraWatcher& watcher) {
  StartExtraWatcher(watcher);
  if (watcher.process == 0) return;
  watcher.restarted = runtime::MonotonicMilliseconds();
  Tell(watcher, "is started again");
}

}  // namespace

bool IsExtraWatcherLine(std::string_view line) {
  return runtime::StartsWithNoCase(line, kChildMark);
}

std::vector<std::string> ExtraWatcherNames(std::string_view list) {
  std::vector<std::string> names;
  for (std::size_t index = 0; const auto field = runtime::GetField(list, index, '|'); ++index) {
    const std::string_view name = runtime::DropTrailingBlanks(field->substr(0, kMaxExtraName));
    if (!name.empty()) names.emplace_back(name);
  }
  return names;
}

std::string ExtraWatcherEntry(std::string_view name) {
  return std::string(kWatchEntry).append(1, ' ').append(name);
}

std::string UsualExtraCommand(std::string_view name) {
  return std::string(kConfigWord).append(1, ' ').append(name);
}

void StartExtraWatchers(std::string_view list, const std::string& ownPath, bool isManaged) {
  const std::uint64_t depth = ReadVariable(kDepthVariable).value_or(0);
  if (depth >= kMaxWatcherDepth) {
    runtime::TraceWrite("Watch - Extra watchers end at depth %d",
                        static_cast<int>(kMaxWatcherDepth));
    return;
  }
  const std::string program = FindOwnProgram(ownPath);
  if (program.empty()) return;
  const std::uint64_t room = ReadVariable(kRoomVariable).value_or(kMaxExtraWatchers);
  Own() = {program, depth + 1,
           ShareRoom(std::min<std::uint64_t>(room, kMaxExtraWatchers), ExtraWatcherNames(list)),
           isManaged || ReadVariable(kStayVariable)};
  for (ExtraWatcher& watcher : Own().all) {
    RunStep([&watcher] { StartExtraWatcher(watcher); });
  }
}

void LookAfterExtraWatcher(std::uint64_t round) {
  std::vector<ExtraWatcher>& all = Own().all;
  const auto index = static_cast<std::size_t>(round % kMaxExtraWatchers);
  if (index >= all.size() || StopRequested()) return;
  ExtraWatcher& watcher = all[index];
  if (watcher.process != 0) NoteEnd(watcher);
  if (watcher.isOwed && MayStartAgain(watcher)) StartAgain(watcher);
}

bool HasExtraWatchers() {
  return std::ranges::any_of(Own().all, [](const ExtraWatcher& watcher) {
    return watcher.process != 0 || watcher.isOwed;
  });
}

bool StayForExtraWatchers(const CWatchOptions& record, const Platform& platform, WatchEnd end) {
  constexpr unsigned kPause = 333;
  constexpr std::uint64_t kRoundsPerLook = 30;
  if (!Own().stay || StopRequested() || !HasExtraWatchers()) return false;
  runtime::TraceWrite("Watch - Staying for extra watchers");
  platform.manager.Ready();
  RunStep([&] { platform.manager.Status("Looking after extra watchers"); });
  for (std::uint64_t round = 1; HasExtraWatchers(); ++round) {
    runtime::ReapChildren();
    RunStep([round] { LookAfterExtraWatcher(round); });
    LookForParentWatcher();
    if (WatchPause(platform, kPause) == WakeUp::kStop) break;
    const bool looks = end != WatchEnd::kDone && round % kRoundsPerLook == 0;
    if (looks && RunGuarded([&record] { return HasEventCommands(record); })) return true;
  }
  platform.manager.Stopping();
  return false;
}

void LeaveExtraWatchers() {
  // The watchers live in sessions of their own, so a signal to this one does not reach them. One
  // that ignores it sees that no goodbye comes.
  if (StopRequested()) return runtime::SignalMarkedChildren(SIGTERM);
  if (runtime::IsStill(Own().made, Own().writing.Get())) runtime::WriteFully(Own().writing, ".");
}

void FollowParentWatcher() {
  // Not getppid: it may have died before this one came up.
  const std::optional<std::uint64_t> process = ReadVariable(kLinkVariable);
  if (!process) return;
  // Neither the commands nor the watchers of this one are to take it for theirs.
  ::unsetenv(VariableName(kLinkVariable).c_str());
  if (::fstat(runtime::kPassedDescriptor, &parent.link) != 0 || !S_ISFIFO(parent.link.st_mode))
    return;
  ::fcntl(runtime::kPassedDescriptor, F_SETFD, FD_CLOEXEC);
  parent.process = static_cast<pid_t>(*process);
  TakeSignalsPassedOnBy(parent.process);
  runtime::ThreadCreate(&WaitForParent, nullptr);
}

void LookForParentWatcher() {
  const bool isLost = parent.process != 0 && ::getppid() != parent.process;
  if (isLost && (AskLink(0) & POLLIN) == 0) RequestStop();
}

}  // namespace qixx::watch
