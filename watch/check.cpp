#include "watch/check.h"

#include <algorithm>
#include <optional>
#include <string_view>
#include <vector>

#include "config/store.h"
#include "runtime/files.h"
#include "runtime/product.h"
#include "watch/check_library.h"
#include "watch/check_lists.h"
#include "watch/check_names.h"
#include "watch/check_report.h"
#include "watch/check_summary.h"
#include "watch/check_trace.h"
#include "watch/check_values.h"
#include "watch/check_watchers.h"
#include "watch/people.h"
#include "watch/watch_main.h"

namespace qixx::watch {
namespace {

/// Takes a file; false, and said, when it cannot be read.
bool Take(CheckedConfiguration& configuration, CheckedRole role, const std::string& path,
          CheckResult& result) {
  const std::string fault = configuration.Load(role, path);
  if (fault.empty()) return true;
  result.errors += "qixxwatch: " + Shown(path) + " cannot be read: " + fault + "\n";
  result.exitCode = kExitUnable;
  return false;
}

/// Mistakes of one line are said in the order of these steps.
void Check(CheckedConfiguration& configuration, std::string_view reason, const std::string& devices,
           CheckResult& result) {
  Mistakes mistakes;
  for (const CheckedRole role : kCheckedRoles) {
    if (const CheckedFile* const file = configuration.File(role)) file->CheckLines(mistakes);
  }
  const std::vector<CheckedWatcher> watchers = CollectWatchers(configuration, mistakes);
  CheckNames(configuration, watchers, mistakes);
  CheckTraceFiles(configuration, mistakes);
  CardLibraryCheck library(devices, mistakes);
  library.CheckDirectory(configuration);
  EventLists lists(configuration);
  for (const CheckedWatcher& watcher : watchers) {
    if (watcher.record.sync) library.CheckReaders(watcher.place);
    CheckWatcher(watcher, configuration, lists, mistakes);
  }
  result.output += mistakes.Text() + DescribeConfiguration(configuration, reason, watchers, lists);
  if (mistakes.Count() != 0) result.exitCode = std::max(result.exitCode, 1);
}

/// Why the system's file is this one.
std::string_view ReasonFor(config::PathOrigin origin) {
  switch (origin) {
    case config::PathOrigin::kEnvironment:
      return "the system's file, as qixconfigglobal says";
    case config::PathOrigin::kHome:
    case config::PathOrigin::kPerUserInstall:
      return "the system's file, of a per-user installation";
    case config::PathOrigin::kCurrentDirectory:
      return "the system's file, in the current folder because there is no other";
    case config::PathOrigin::kSystemDirectory:
    case config::PathOrigin::kBuiltIn:
      return "the system's file";
  }
  return {};
}

void CheckFilesInUse(const std::string& devices, CheckResult& result) {
  CheckedConfiguration configuration;
  const config::ConfigPath system = config::CConfig::LocateGlobal().value_or(config::ConfigPath{});
  const bool isRead = Take(configuration, CheckedRole::kSystem, system.path, result);
  if (!isRead && system.origin == config::PathOrigin::kCurrentDirectory) {
    result.errors += "qixxwatch: there is no /etc/" + system.path + " either\n";
  }
  const std::optional<config::ConfigPath> user = config::CConfig::LocateLocal();
  if (user && user->path != system.path && runtime::PathExists(user->path)) {
    Take(configuration, CheckedRole::kUser, user->path, result);
  }
  const std::optional<std::string> beside = LocalConfigurationPath();
  if (beside && runtime::PathExists(*beside)) {
    Take(configuration, CheckedRole::kBeside, *beside, result);
  }
  Check(configuration, ReasonFor(system.origin), devices, result);
}

}  // namespace

CheckResult CheckConfiguration(std::span<const std::string> files, const std::string& devices) {
  runtime::InitProductIdentity();
  CheckResult result;
  if (files.empty()) CheckFilesInUse(devices, result);
  for (const std::string& file : files) {
    CheckedConfiguration configuration;
    if (!Take(configuration, CheckedRole::kSystem, file, result)) continue;
    Check(configuration, "checked as the system's file", devices, result);
  }
  return result;
}

}  // namespace qixx::watch
