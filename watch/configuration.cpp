#include "watch/configuration.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>
#include <utility>

#include "config/file.h"
#include "runtime/descriptor.h"
#include "runtime/notice.h"
#include "runtime/settings.h"

namespace qixx::watch {
namespace {

class StoreSettings : public runtime::RuntimeSettings {
 public:
  /// Whatever could be opened is asked; even without a file an entry may come from the environment.
  explicit StoreSettings(runtime::SettingsScope scope) {
    if (scope == runtime::SettingsScope::kSystemOnly) {
      store_.OpenDefault(false);
    } else {
      store_.OpenAll(false);
    }
  }
  std::optional<std::string> GetText(std::string_view section, std::string_view entry) override {
    std::optional<config::ConfigValue> value = store_.GetString(section, entry);
    if (!value) return std::nullopt;
    return std::move(value->text);
  }
  std::optional<bool> GetBoolean(std::string_view section, std::string_view entry) override {
    return store_.GetBoolean(section, entry);
  }

 private:
  config::CConfig store_;
};

}  // namespace

std::optional<UnreadableFile> WhyUnreadable(const std::string& path) {
  if (path.empty()) return UnreadableFile{"it has no name"};
  const runtime::Descriptor file = runtime::OpenRegular(path, O_RDONLY);
  if (!file.IsOpen()) {
    const int error = errno;
    struct stat status {};
    const bool isOther = ::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
    if (isOther) return UnreadableFile{"no regular file"};
    return UnreadableFile{runtime::ErrorText(error), error == ENOENT};
  }
  const auto size = static_cast<std::size_t>(runtime::StatusOf(file).st_size);
  if (size <= config::kMaxConfigSize) return std::nullopt;
  return UnreadableFile{"larger than " + std::to_string(config::kMaxConfigSize >> 20) + " MiB"};
}

std::string WhyMissing(std::string_view what) {
  const auto [path, origin] = config::CConfig::LocateGlobal().value_or(config::ConfigPath{});
  const bool isLastResort = origin == config::PathOrigin::kCurrentDirectory;
  const std::string file =
      isLastResort ? "there is no /etc/" + path + ", and " + path + " in the current folder" : path;
  if (const auto fault = WhyUnreadable(path)) return file + " cannot be read: " + fault->why;
  return file + " has no " + std::string(what);
}

bool LoadProductConfiguration(config::CConfig& config) {
  return config.OpenDefault(false) == config::ConfigResult::kOk && config.HasText();
}

bool HasProductConfiguration() {
  const std::string path = config::CConfig::LocateGlobal().value_or(config::ConfigPath{}).path;
  config::CConfig config;
  return runtime::StatusOf(runtime::OpenRegular(path, O_RDONLY)).st_size > 0 &&
         LoadProductConfiguration(config);
}

std::string ReadFileText(config::CConfig& config, std::string_view section, std::string_view entry,
                         std::size_t maxLength) {
  std::optional<config::ConfigValue> value = config.GetString(section, entry, maxLength);
  const bool fromFile = value && value->origin == config::ConfigOrigin::kFile;
  return fromFile ? std::move(value->text) : std::string();
}

std::string ReadProductText(std::string_view section, std::string_view entry,
                            std::size_t maxLength) {
  config::CConfig config;
  if (config.OpenDefault(false) != config::ConfigResult::kOk) return {};
  return ReadFileText(config, section, entry, maxLength);
}

void ConnectRuntimeSettings() {
  runtime::SetSettingsSource([](runtime::SettingsScope scope) {
    return std::unique_ptr<runtime::RuntimeSettings>(std::make_unique<StoreSettings>(scope));
  });
}

}  // namespace qixx::watch
