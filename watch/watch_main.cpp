#include "watch/watch_main.h"

#include <algorithm>
#include <array>

#include "runtime/files.h"
#include "runtime/notice.h"
#include "runtime/product.h"
#include "runtime/secrets.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "watch/configuration.h"
#include "watch/extra_watchers.h"
#include "watch/guard.h"
#include "watch/options.h"
#include "watch/parallel.h"
#include "watch/settings.h"
#include "watch/simulate.h"
#include "watch/slot_loop.h"
#include "watch/spare_service.h"

namespace qixx::watch {
namespace {

constexpr const char* kComponent = "watch";
constexpr std::string_view kConfigHead = "config ";
constexpr std::string_view kLocalExtension = ".conf";

/// Lines that begin so are not completed by a configured command.
constexpr std::array<std::string_view, 2> kWithoutConfiguration = {"-uninstall", "ServiceMain"};
/// Lines that begin so are not parsed as options.
constexpr std::array<std::string_view, 4> kServiceVerbs = {"-install", "-uninstall", "-start",
                                                           "-stop"};

/// How long the end of the process waits for commands on threads of their own, in milliseconds.
constexpr unsigned kParallelJobWait = 5000;

template <std::size_t kCount>
bool BeginsWithAny(std::string_view line, const std::array<std::string_view, kCount>& heads) {
  return std::ranges::any_of(
      heads, [line](std::string_view head) { return runtime::StartsWithNoCase(line, head); });
}

// --- start --------------------------------------------------------------------------------------

void PrepareProcess() {
  runtime::InitProductIdentity();
  ConnectRuntimeSettings();
  runtime::TraceInit(kComponent);
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

void TraceCommands(const std::string& line, const std::string& command) {
  runtime::TraceWrite("Watch - Command start:  '%s'", runtime::MaskedText(line).Text());
  runtime::TraceWrite("Watch - Command config: '%s'", runtime::MaskedText(command).Text());
}

// --- options ------------------------------------------------------------------------------------

std::string ReadBackground(const std::string& section) {
  config::CConfig config;
  if (config.OpenDefault(false) != config::ConfigResult::kOk) return {};
  return ReadFileText(config, section, kBackgroundEntry, kMaxOption);
}

/// Each text is followed by a look for the background program of the section that holds by then.
void ApplyOptions(std::string_view text, CWatchOptions& record) {
  ParseWatchOptions(text, record);
  record.background = ReadBackground(record.section);
}

CWatchOptions ParseCommands(std::string_view command, std::string_view line) {
  CWatchOptions record;
  ApplyOptions(command, record);
  if (!BeginsWithAny(line, kServiceVerbs)) ApplyOptions(line, record);
  return record;
}

void RunCommands(std::string_view command, std::string_view line, const std::string& ownPath,
                 const Platform& platform) {
  CWatchOptions record = ParseCommands(command, line);
  const std::string extraList = SplitConfigRest(record);
  if (!record.simulate.empty()) {
    SimulateEvent(record, platform);
    return;
  }
  if (!extraList.empty()) RunStep([&] { StartExtraWatchers(extraList, ownPath); });
  RunWatch(record, platform);
  LeaveExtraWatchers();
}

void RunLine(config::CConfig& config, std::string_view line, const Platform& platform) {
  const std::string ownPath = runtime::GetCallingApplication();
  PrepareProcess();

  const bool isChild = runtime::StartsWithNoCase(line, kChildMark);
  if (isChild) {
    line.remove_prefix(kChildMark.size());
    FollowParentWatcher();
  }
  const std::string ownLine(line.substr(0, kMaxCommandLine));
  std::string command;
  if (!isChild && !BeginsWithAny(ownLine, kWithoutConfiguration))
    command = ReadWatchCommand(config);
  TraceCommands(ownLine, command);

  const bool hasCommand = !command.empty() || !ownLine.empty();
  if (hasCommand && !ownLine.starts_with('?')) {
    RunCommands(command, ownLine, ownPath, platform);
  } else {
    runtime::TraceWrite("Watch - Failed to parse config");
    if (!hasCommand)
      runtime::NotifyOnce("nothing to watch: " + WhyMissing("entry Watch in section Command"));
  }
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
  SetServiceHandle(serviceHandle);
  RunStep([&] { RunLine(config, line, platform); });
  WaitForParallelJobs(kParallelJobWait);
  return 0;
}

std::optional<std::string> LocalConfigurationPath() {
  std::string path = runtime::GetCallingApplication();
  const std::size_t dot = runtime::FindCharBack(path, '.');
  if (dot == std::string::npos) return std::nullopt;
  path.replace(dot, std::string::npos, kLocalExtension);
  if (path.size() > runtime::kMaxText) return std::nullopt;
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
  const std::size_t bar = runtime::FindChar(names, '|');
  const std::string_view section =
      runtime::DropTrailingBlanks(std::string_view(names).substr(0, bar));
  if (!section.empty()) record.section = section;
  return bar == std::string::npos ? std::string() : names.substr(bar + 1);
}

}  // namespace qixx::watch
