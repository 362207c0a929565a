#include "watch/settings.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "config/store.h"
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

void ConnectRuntimeSettings() {
  runtime::SetSettingsSource([](runtime::SettingsScope scope) {
    return std::unique_ptr<runtime::RuntimeSettings>(std::make_unique<StoreSettings>(scope));
  });
}

}  // namespace qixx::watch
