#include "watch/watch_main.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "config/store.h"
#include "runtime/children.h"
#include "runtime/files.h"
#include "runtime/process.h"
#include "runtime/secrets.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "watch/command.h"
#include "watch/options.h"
#include "watch/settings.h"
#include "watch/simulate.h"
#include "watch/slot_loop.h"
#include "watch/stop.h"

namespace qixx::watch {
namespace {

constexpr const char* kComponent = "watch";
constexpr const char* kCommandSection = "Command";
constexpr const char* kWatchEntry = "Watch";
constexpr std::string_view kChildMark = "X ";
constexpr std::string_view kConfigHead = "config ";
constexpr std::string_view kLocalExtension = ".conf";

/// Lines that begin so are not completed by a configured command.
constexpr std::array<std::string_view, 2> kWithoutConfiguration = {"-uninstall", "ServiceMain"};
/// Lines that begin so are not parsed as options.
constexpr std::array<std::string_view, 4> kServiceVerbs = {"-install", "-uninstall", "-start",
                                                           "-stop"};

/// Longest name of an extra watcher.
constexpr std::size_t kExtraNameLength = 58;
/// How long the end of the process waits for commands on threads of their own, in milliseconds.
constexpr unsigned kParallelJobWait = 5000;

constinit int currentServiceHandle = 0;
/// The path by which this program was started.
constinit char ownPath[runtime::kTextSize] = {};

template <std::size_t kCount>
bool BeginsWithAny(std::string_view line, const std::array<std::string_view, kCount>& heads) {
  return std::any_of(heads.begin(), heads.end(), [line](std::string_view head) {
    return runtime::StartsWithNoCase(line, head);
  });
}

// --- start --------------------------------------------------------------------------------------

void PrepareProcess() {
  runtime::GetCallingApplication(ownPath);
  runtime::InitProductIdentity();
  ConnectRuntimeSettings();
  runtime::TraceInit(kComponent);
}

/// The program-local file first, then the product's.
void ReadWatchCommand(config::CConfig& config, std::span<char> command) {
  if (ReadLocalWatchCommand(command)) return;
  if (config.OpenDefault(false) == config::kConfigOk) {
    // Whatever the result says: a value from the environment counts.
    config.GetString(kCommandSection, kWatchEntry, command, true);
    config.Close(true);
  }
}

void TraceCommands(const char* line, const char* command) {
  runtime::TraceWrite("Watch - Command start:  '%s'", runtime::MaskedText(line).Text());
  runtime::TraceWrite("Watch - Command config: '%s'", runtime::MaskedText(command).Text());
}

// --- options ------------------------------------------------------------------------------------

void ParseCommands(const char* command, std::string_view line, CWatchOptions& record) {
  ParseWatchOptions(command, record);
  if (!BeginsWithAny(line, kServiceVerbs)) ParseWatchOptions(line, record);
}

/// Takes the section and the list of extra watchers out of "config section|extra|extra".
void SplitConfigRest(CWatchOptions& record, std::span<char> extraList) {
  if (!runtime::StartsWithNoCase(runtime::TextOf(record.rest), kConfigHead)) return;
  const std::string_view names = runtime::TextOf(record.rest).substr(kConfigHead.size());
  const std::size_t bar = runtime::FindChar(names, '|');
  if (bar != std::string_view::npos) runtime::CopyTextCut(extraList, names.substr(bar + 1));
  const std::string_view section = runtime::DropTrailingBlanks(names.substr(0, bar));
  if (!section.empty()) runtime::CopyTextCut(record.section, section);
  record.rest[kConfigWord.size()] = '\0';
}

/// The watchers that this one started live in sessions of their own, so a signal to this one does
/// not reach them.
void PassStopOn() {
  if (StopRequested()) runtime::SignalMarkedChildren(SIGTERM);
}

void RunCommands(const char* command, const char* line, CWatchOptions& record) {
  ParseCommands(command, line, record);
  char extraList[runtime::kTextSize] = {};
  SplitConfigRest(record, extraList);
  if (record.simulate[0] != '\0') {
    SimulateEvent(record);
    return;
  }
  if (extraList[0] != '\0') StartExtraWatchers(extraList);
  RunWatch(record);
  PassStopOn();
}

// --- extra watchers -----------------------------------------------------------------------------

/// How deep watchers have started watchers, in an environment variable. While it lives, what is
/// started counts one level deeper than this process.
class WatcherDepth {
 public:
  WatcherDepth() {
    std::snprintf(name_, sizeof name_, "%swatchdepth", runtime::Product().prefix.data());
    const char* const value = ::getenv(name_);
    depth_ = runtime::ParseDecimal(runtime::ViewOf(value));
    if (!IsExhausted()) Store(depth_ + 1);
  }
  ~WatcherDepth() {
    if (depth_ == 0) {
      ::unsetenv(name_);
    } else if (!IsExhausted()) {
      Store(depth_);
    }
  }
  WatcherDepth(const WatcherDepth&) = delete;
  WatcherDepth& operator=(const WatcherDepth&) = delete;

  [[nodiscard]] bool IsExhausted() const { return depth_ >= kMaximumWatcherDepth; }

 private:
  void Store(std::uint64_t depth) const {
    char value[8];
    std::snprintf(value, sizeof value, "%u", static_cast<unsigned>(depth));
    ::setenv(name_, value, 1);
  }

  char name_[32];
  std::uint64_t depth_ = 0;
};

/// The path that starts this program once more: its own when that says where it stands, else, for a
/// program found through PATH, the real one. Empty when there is none.
void FindOwnProgram(std::span<char> path) {
  path[0] = '\0';
  if (runtime::FindChar(runtime::TextOf(ownPath), '/') != std::string_view::npos) {
    runtime::CopyTextCut(path, runtime::TextOf(ownPath));
    return;
  }
  const ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size());
  const bool complete = length > 0 && static_cast<std::size_t>(length) < path.size();
  path[complete ? static_cast<std::size_t>(length) : 0] = '\0';
}

/// Reads the command of an extra watcher; empty when the configuration has none.
void ReadExtraCommand(std::string_view name, std::span<char> command) {
  char entry[runtime::kTextSize];
  std::snprintf(entry, sizeof entry, "%s %.*s", kWatchEntry, static_cast<int>(name.size()),
                name.data());
  command[0] = '\0';
  config::CConfig config;
  if (config.OpenDefault(false) != config::kConfigOk ||
      config.GetString(kCommandSection, entry, command, false) != config::kConfigOk) {
    command[0] = '\0';
  }
}

void StartExtraWatcher(const char* program, std::string_view name) {
  char arguments[runtime::kLineSize];
  const std::size_t head = runtime::CopyTextCut(arguments, kChildMark);
  const std::span<char> command = std::span(arguments).subspan(head);
  ReadExtraCommand(name, command);
  if (command[0] == '\0') {
    const std::size_t end = runtime::CopyTextCut(command, kConfigHead);
    runtime::CopyTextCut(command.subspan(end), name);
  }

  char shownName[kExtraNameLength + 1];
  runtime::CopyTextCut(shownName, name);
  runtime::TraceWrite("Watch - Extra '%s'", runtime::MaskedText(shownName).Text());
  const runtime::ChildMark marked;
  std::uint64_t processId = 0;
  runtime::LaunchProcess(program, arguments, runtime::kWaitNone, true, &processId);
}

}  // namespace

void JoinArguments(int argc, const char* const* argv, std::span<char> line) {
  if (line.empty()) return;
  line[0] = '\0';
  std::size_t length = 0;
  for (int i = 1; i < argc && argv[i] != nullptr; ++i) {
    length += runtime::CopyTextCut(line.subspan(length), argv[i]);
    length += runtime::CopyTextCut(line.subspan(length), " ");
  }
}

int WatchMain(int /*instance*/, int serviceHandle, const char* line) {
  char command[runtime::kLineSize] = {};
  CWatchOptions record = {};
  config::CConfig config;
  currentServiceHandle = serviceHandle;
  PrepareProcess();

  std::string_view text = runtime::ViewOf(line);
  const bool isChild = runtime::StartsWithNoCase(text, kChildMark);
  if (isChild) text.remove_prefix(kChildMark.size());
  char ownLine[runtime::kLineSize];
  runtime::CopyTextCut(ownLine, text);
  if (!isChild && !BeginsWithAny(ownLine, kWithoutConfiguration)) ReadWatchCommand(config, command);
  TraceCommands(ownLine, command);

  const bool hasCommand = command[0] != '\0' || ownLine[0] != '\0';
  if (hasCommand && ownLine[0] != '?') {
    RunCommands(command, ownLine, record);
  } else {
    runtime::TraceWrite("Watch - Failed to parse config");
  }
  WaitForParallelJobs(kParallelJobWait);
  return 0;
}

int ServiceHandle() {
  return currentServiceHandle;
}

bool ReadLocalWatchCommand(std::span<char> buffer) {
  buffer[0] = '\0';
  char path[runtime::kTextSize] = {};
  runtime::GetCallingApplication(path);
  const std::size_t dot = runtime::FindCharBack(runtime::TextOf(path), '.');
  if (dot == std::string_view::npos ||
      !runtime::CopyTextIfFits(std::span(path).subspan(dot), kLocalExtension)) {
    return false;
  }
  config::CConfig config;
  if (config.OpenItem(false, path) != config::kConfigOk) return false;
  // A value that only the environment gives is a failed read and does not count here.
  if (config.GetString(kCommandSection, kWatchEntry, buffer, false) != config::kConfigOk)
    buffer[0] = '\0';
  return buffer[0] != '\0';
}

void StartExtraWatchers(const char* list) {
  const WatcherDepth depth;
  if (depth.IsExhausted()) {
    runtime::TraceWrite("Watch - Extra watchers end at depth %d",
                        static_cast<int>(kMaximumWatcherDepth));
    return;
  }
  char program[PATH_MAX];
  FindOwnProgram(program);
  if (program[0] == '\0') return;
  std::string_view field;
  for (std::size_t index = 0; runtime::GetField(runtime::ViewOf(list), index, '|', field);
       ++index) {
    const std::string_view name = runtime::DropTrailingBlanks(field.substr(0, kExtraNameLength));
    if (!name.empty()) StartExtraWatcher(program, name);
  }
}

}  // namespace qixx::watch
