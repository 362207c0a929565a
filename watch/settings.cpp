#include "watch/settings.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "config/store.h"
#include "runtime/settings.h"
#include "runtime/text.h"

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
    char value[runtime::kTextSize];
    const bool isRead = config::ReadConfigText(store_, std::string(section).c_str(),
                                               std::string(entry).c_str(), value, false);
    if (!isRead) return std::nullopt;
    return std::string(runtime::TextOf(value));
  }
  std::optional<bool> GetBoolean(std::string_view section, std::string_view entry) override {
    bool value = false;
    const auto result =
        store_.GetBoolean(std::string(section).c_str(), std::string(entry).c_str(), value);
    if (result != config::kConfigOk) return std::nullopt;
    return value;
  }

 private:
  config::CConfig store_;
};

}  // namespace

void ConnectRuntimeSettings() {
  runtime::SetSettingsSource([](runtime::SettingsScope scope) {
    return std::unique_ptr<runtime::RuntimeSettings>(std::make_unique<StoreSettings>(scope));
  });
}

}  // namespace qixx::watch
