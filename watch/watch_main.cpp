#include "watch/watch_main.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <span>

#include "runtime/file_place.h"
#include "runtime/files.h"
#include "runtime/notice.h"
#include "runtime/product.h"
#include "runtime/secrets.h"
#include "runtime/trace.h"
#include "watch/configuration.h"
#include "watch/extra_watchers.h"
#include "watch/guard.h"
#include "watch/running_jobs.h"
#include "watch/simulate.h"
#include "watch/slot_loop.h"

namespace qixx::watch {
namespace {

constexpr const char* kComponent = "watch";
constexpr std::string_view kConfigHead = "config ";
constexpr std::string_view kLocalExtension = ".conf";

/// Lines that begin so are not completed by a configured command.
constexpr std::string_view kWithoutConfiguration[] = {"-uninstall", "ServiceMain"};
/// Lines that begin so are not parsed as options.
constexpr std::string_view kServiceVerbs[] = {"-install", "-uninstall", "-start", "-stop"};

/// How long the end of the process waits for commands and edits on threads of their own, in
/// milliseconds.
constexpr unsigned kJobWait = 5000;

bool BeginsWithAny(std::string_view line, std::span<const std::string_view> heads) {
  return std::ranges::any_of(
      heads, [line](std::string_view head) { return runtime::StartsWithNoCase(line, head); });
}

/// The program-local file first, then the product's, where a value from the environment counts.
std::string ReadWatchCommand(config::CConfig& config) {
  if (std::optional<std::string> local = ReadLocalWatchCommand()) return *std::move(local);
  if (config.OpenDefault(false) != config::ConfigResult::kOk) return {};
  std::optional<config::ConfigValue> command =
      config.GetString(kCommandSection, kWatchEntry, kMaxCommandLine);
  config.Close(true);
  return command ? std::move(command->text) : std::string();
}

/// Each text is followed by a look for the background program of the section that holds by then.
void ApplyOptions(std::string_view text, CWatchOptions& record) {
  ParseWatchOptions(text, record);
  record.background = ReadProductText(record.section, kBackgroundEntry, kMaxOption);
}

/// `isLookedAfter`: whoever started this watcher starts it again when memory runs out.
void RunCommands(std::string_view command, std::string_view line, const std::string& ownPath,
                 const Platform& platform, bool isLookedAfter) {
  CWatchOptions record;
  ApplyOptions(command, record);
  if (!BeginsWithAny(line, kServiceVerbs)) ApplyOptions(line, record);
  const std::string extraList = SplitConfigRest(record);
  if (!record.simulate.empty()) {
    SimulateEvent(record, platform);
    return;
  }
  const bool hasStarted = extraList.empty() || RunStep([&] {
                            StartExtraWatchers(extraList, ownPath, platform.manager.IsThere());
                          });
  if (!hasStarted && isLookedAfter) throw std::bad_alloc();
  WatchEnd end = RunWatch(record, platform);
  while (StayForExtraWatchers(record, platform, end)) end = RunWatch(record, platform);
  // Without a goodbye the extra watchers end as well: this one starts them anew.
  if (end == WatchEnd::kNoMemory && isLookedAfter) throw std::bad_alloc();
  LeaveExtraWatchers();
}

void RunLine(config::CConfig& config, std::string_view line, const Platform& platform) {
  const std::string ownPath = runtime::GetCallingApplication();
  runtime::InitProductIdentity();
  ConnectRuntimeSettings();
  runtime::TraceInit(kComponent);

  const bool isChild = IsExtraWatcherLine(line);
  if (isChild) {
    line.remove_prefix(kChildMark.size());
    FollowParentWatcher();
  }
  line = line.substr(0, kMaxCommandLine);
  std::string command;
  if (!isChild && !BeginsWithAny(line, kWithoutConfiguration)) command = ReadWatchCommand(config);
  runtime::TraceWrite("Watch - Command start:  '%s'", runtime::MaskedText(line).Text());
  runtime::TraceWrite("Watch - Command config: '%s'", runtime::MaskedText(command).Text());

  const bool hasCommand = !command.empty() || !line.empty();
  if (hasCommand && !line.starts_with('?')) {
    RunCommands(command, line, ownPath, platform, isChild || platform.manager.IsThere());
  } else {
    runtime::TraceWrite("Watch - Failed to parse config");
    if (!hasCommand)
      runtime::NotifyOnce("nothing to watch: " + WhyMissing("entry Watch in section Command"));
  }
}

/// Whether anybody may make a file of this name before it is opened.
bool MayBeMadeByOthers(const std::string& path) {
  struct stat folder {};
  const std::string place = path.substr(0, path.rfind('/') + 1);
  return ::stat(place.empty() ? "." : place.c_str(), &folder) == 0 &&
         (folder.st_mode & S_IWOTH) != 0;
}

/// The dot may be far up in the path, behind a folder in which anybody makes files. One that is not
/// there counts as missing from now on, and the trace shows it so.
bool IsOfSomebodyElse(const std::string& path, const std::string& program) {
  struct stat status {};
  struct stat own {};
  const std::string shown = runtime::MaskSecrets(path);
  if (::lstat(path.c_str(), &status) != 0) {
    if (!MayBeMadeByOthers(path)) return false;
    runtime::TraceWrite("Config - Open '%s' (%s)", shown.c_str(), "r");
    runtime::TraceWrite("Config - Failed to open");
    return true;
  }
  if (runtime::IsTrustedOwner(status.st_uid)) return false;
  if (::stat(program.c_str(), &own) == 0 && own.st_uid == status.st_uid) return false;
  runtime::TraceRefusal(shown, "a file of somebody else");
  return true;
}

}  // namespace

std::string JoinArguments(int argc, const char* const* argv) {
  std::string line;
  for (int i = 1; i < argc && argv[i] != nullptr; ++i) line.append(argv[i]).append(" ");
  return line.substr(0, kMaxCommandLine);
}

int WatchMain(int /*instance*/, int serviceHandle, std::string_view line,
              const Platform& platform) {
  config::CConfig config;
  givenServiceHandle = serviceHandle;
  const bool isWhole = RunStep([&] { RunLine(config, line, platform); });
  WaitForJobs(kJobWait);
  return isWhole || !IsExtraWatcherLine(line) ? 0 : EXIT_FAILURE;
}

std::optional<std::string> LocalConfigurationPath() {
  const std::string program = runtime::GetCallingApplication();
  std::string path = program;
  const std::size_t dot = path.rfind('.');
  if (dot == std::string::npos) return std::nullopt;
  path.replace(dot, std::string::npos, kLocalExtension);
  if (path.size() > runtime::kMaxText || IsOfSomebodyElse(path, program)) return std::nullopt;
  return path;
}

std::optional<std::string> ReadLocalWatchCommand() {
  const std::optional<std::string> path = LocalConfigurationPath();
  config::CConfig config;
  if (!path || config.OpenItem(false, *path) != config::ConfigResult::kOk) return std::nullopt;
  std::string command = ReadFileText(config, kCommandSection, kWatchEntry, kMaxCommandLine);
  if (command.empty()) return std::nullopt;
  return command;
}

std::string SplitConfigRest(CWatchOptions& record) {
  if (!runtime::StartsWithNoCase(record.rest, kConfigHead)) return {};
  const std::string names = record.rest.substr(kConfigHead.size());
  record.rest.resize(kConfigWord.size());
  const std::size_t bar = names.find('|');
  const std::string_view section =
      runtime::DropTrailingBlanks(std::string_view(names).substr(0, bar));
  if (!section.empty()) record.section = section;
  return bar == std::string::npos ? std::string() : names.substr(bar + 1);
}

}  // namespace qixx::watch
