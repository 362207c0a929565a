#include "watch/extra_watchers.h"

#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstdlib>

#include "runtime/children.h"
#include "runtime/process.h"
#include "runtime/product.h"
#include "runtime/secrets.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "watch/configuration.h"
#include "watch/watch_main.h"

namespace qixx::watch {
namespace {

/// How deep watchers have started watchers, in an environment variable. While it lives, what is
/// started counts one level deeper than this process.
class WatcherDepth {
 public:
  WatcherDepth() : name_(std::string(runtime::Product().prefix) + "watchdepth") {
    depth_ = runtime::ParseDecimal(runtime::ViewOf(::getenv(name_.c_str())));
    if (!IsExhausted()) Store(depth_ + 1);
  }
  ~WatcherDepth() {
    if (depth_ == 0) {
      ::unsetenv(name_.c_str());
    } else if (!IsExhausted()) {
      Store(depth_);
    }
  }
  WatcherDepth(const WatcherDepth&) = delete;
  WatcherDepth& operator=(const WatcherDepth&) = delete;

  [[nodiscard]] bool IsExhausted() const { return depth_ >= kMaxWatcherDepth; }

 private:
  void Store(std::uint64_t depth) const {
    ::setenv(name_.c_str(), std::to_string(depth).c_str(), 1);
  }

  std::string name_;
  std::uint64_t depth_ = 0;
};

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
  const std::string entry = std::string(kWatchEntry) + " " + name;
  return ReadFileText(config, kCommandSection, entry, kMaxCommandLine - kChildMark.size());
}

void StartExtraWatcher(const std::string& program, const std::string& name) {
  std::string command = ReadExtraCommand(name);
  if (command.empty()) command = "config " + name;
  runtime::TraceWrite("Watch - Extra '%s'", runtime::MaskedText(name).Text());
  const runtime::ChildMark marked;
  runtime::LaunchProcess(program, std::string(kChildMark) + command);
}

}  // namespace

void StartExtraWatchers(std::string_view list, const std::string& ownPath) {
  const WatcherDepth depth;
  if (depth.IsExhausted()) {
    runtime::TraceWrite("Watch - Extra watchers end at depth %d",
                        static_cast<int>(kMaxWatcherDepth));
    return;
  }
  const std::string program = FindOwnProgram(ownPath);
  if (program.empty()) return;
  for (std::size_t index = 0; const auto field = runtime::GetField(list, index, '|'); ++index) {
    const std::string_view name = runtime::DropTrailingBlanks(field->substr(0, kMaxExtraName));
    if (!name.empty()) StartExtraWatcher(program, std::string(name));
  }
}

}  // namespace qixx::watch
