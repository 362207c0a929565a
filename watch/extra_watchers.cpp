#include "watch/extra_watchers.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <vector>

#include "runtime/children.h"
#include "runtime/descriptor.h"
#include "runtime/no_destructor.h"
#include "runtime/process.h"
#include "runtime/product.h"
#include "runtime/secrets.h"
#include "runtime/sync.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "watch/configuration.h"
#include "watch/stop.h"
#include "watch/watch_main.h"

namespace qixx::watch {
namespace {

constexpr std::string_view kDepthVariable = "watchdepth";
constexpr std::string_view kRoomVariable = "watchroom";
constexpr std::string_view kLinkVariable = "watchlink";

std::string VariableName(std::string_view name) {
  return std::string(runtime::Product().prefix).append(name);
}

std::optional<std::uint64_t> ReadVariable(std::string_view name) {
  const char* const value = ::getenv(VariableName(name).c_str());
  if (value == nullptr) return std::nullopt;
  return runtime::ParseDecimal(value);
}

/// An environment variable for what is started while it lives; then the old value is back.
class ChildVariable {
 public:
  ChildVariable(std::string_view name, std::uint64_t value) : name_(VariableName(name)) {
    if (const char* const before = ::getenv(name_.c_str()); before != nullptr) before_ = before;
    ::setenv(name_.c_str(), std::to_string(value).c_str(), 1);
  }
  ~ChildVariable() {
    if (before_) {
      ::setenv(name_.c_str(), before_->c_str(), 1);
    } else {
      ::unsetenv(name_.c_str());
    }
  }
  ChildVariable(const ChildVariable&) = delete;
  ChildVariable& operator=(const ChildVariable&) = delete;

 private:
  std::string name_;
  std::optional<std::string> before_;
};

// --- the link -----------------------------------------------------------------------------------

/// A pipe whose writing end this process alone has. So its readers see when the process ends,
/// whatever ended it.
class Link {
 public:
  void Open() {
    int ends[2];
    if (reading_.IsOpen() || ::pipe2(ends, O_CLOEXEC) != 0) return;
    reading_ = runtime::Descriptor(ends[0]);
    writing_ = runtime::Descriptor(ends[1]);
  }
  /// For the watchers to read from; negative when there is none.
  [[nodiscard]] int Reading() const { return reading_.Get(); }
  /// Tells them all that the end which follows is in order.
  void SayGoodbye() {
    if (writing_.IsOpen()) runtime::WriteFully(writing_, std::string(kMaxExtraWatchers, '.'));
  }

 private:
  runtime::Descriptor reading_;  ///< kept, so that no write fails
  runtime::Descriptor writing_;
};

/// Never destroyed, because its end is that of the process.
Link& OwnLink() {
  static runtime::NoDestructor<Link> link;
  return *link;
}

/// A thread of its own, since the main one may be inside a command or the card's library.
void* WaitForParent(void* /*argument*/) {
  runtime::ThreadDetachSelf();
  const runtime::Descriptor link(runtime::kPassedDescriptor);
  char goodbye = 0;
  ssize_t got = 0;
  do {
    got = ::read(link.Get(), &goodbye, sizeof goodbye);
  } while (got < 0 && errno == EINTR);
  // A second request would not wait for the commands that the first one waits for.
  if (got == 0 && !StopRequested()) ::kill(::getpid(), SIGTERM);
  return nullptr;
}

bool IsPipe(int descriptor) {
  struct stat status {};
  return ::fstat(descriptor, &status) == 0 && S_ISFIFO(status.st_mode);
}

// --- starting -----------------------------------------------------------------------------------

/// The path that starts this program once more: its own when that says where it stands, else, for a
/// program found through PATH, the real one. Empty when there is none.
std::string FindOwnProgram(const std::string& ownPath) {
  if (runtime::FindChar(ownPath, '/') != std::string_view::npos) return ownPath;
  char path[PATH_MAX];
  const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path);
  const bool complete = length > 0 && static_cast<std::size_t>(length) < sizeof path;
  return complete ? std::string(path, static_cast<std::size_t>(length)) : std::string();
}

/// The command of an extra watcher, empty when there is none in the file.
std::string ReadExtraCommand(const std::string& name) {
  config::CConfig config;
  if (config.OpenDefault(false) != config::ConfigResult::kOk) return {};
  return ReadFileText(config, kCommandSection, ExtraWatcherEntry(name),
                      kMaxCommandLine - kChildMark.size());
}

void StartExtraWatcher(const std::string& program, const std::string& name) {
  std::string command = ReadExtraCommand(name);
  if (command.empty()) command = UsualExtraCommand(name);
  runtime::TraceWrite("Watch - Extra '%s'", runtime::MaskedText(name).Text());
  const runtime::ChildMark marked;
  runtime::LaunchProcess(program, std::string(kChildMark) + command, runtime::kWaitNone,
                         OwnLink().Reading());
}

/// As many of the names as there is room for. What is left is split, so that no watcher of the tree
/// has to know what the others start.
void StartWithin(std::uint64_t room, std::vector<std::string> names, const std::string& program) {
  if (names.size() > room) {
    runtime::TraceWrite("Watch - Extra watchers end at %d in all",
                        static_cast<int>(kMaxExtraWatchers));
    names.resize(room);
  }
  room -= names.size();
  OwnLink().Open();
  const ChildVariable link(kLinkVariable, runtime::kPassedDescriptor);
  std::size_t left = names.size();
  for (const std::string& name : names) {
    const std::uint64_t share = room / left--;
    room -= share;
    const ChildVariable shared(kRoomVariable, share);
    StartExtraWatcher(program, name);
  }
}

}  // namespace

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

void StartExtraWatchers(std::string_view list, const std::string& ownPath) {
  const std::uint64_t depth = ReadVariable(kDepthVariable).value_or(0);
  if (depth >= kMaxWatcherDepth) {
    runtime::TraceWrite("Watch - Extra watchers end at depth %d",
                        static_cast<int>(kMaxWatcherDepth));
    return;
  }
  const std::string program = FindOwnProgram(ownPath);
  if (program.empty()) return;
  const std::uint64_t room = ReadVariable(kRoomVariable).value_or(kMaxExtraWatchers);
  const ChildVariable deeper(kDepthVariable, depth + 1);
  StartWithin(std::min<std::uint64_t>(room, kMaxExtraWatchers), ExtraWatcherNames(list), program);
}

void LeaveExtraWatchers() {
  // The watchers live in sessions of their own, so a signal to this one does not reach them.
  if (StopRequested()) runtime::SignalMarkedChildren(SIGTERM);
  OwnLink().SayGoodbye();
}

void FollowParentWatcher() {
  if (!ReadVariable(kLinkVariable)) return;
  // Neither the commands nor the watchers of this one are to take it for theirs.
  ::unsetenv(VariableName(kLinkVariable).c_str());
  if (!IsPipe(runtime::kPassedDescriptor)) return;
  ::fcntl(runtime::kPassedDescriptor, F_SETFD, FD_CLOEXEC);
  runtime::ThreadCreate(&WaitForParent, nullptr);
}

}  // namespace qixx::watch
