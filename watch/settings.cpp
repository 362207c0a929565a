#include "watch/settings.h"

#include <optional>

#include "config/store.h"
#include "runtime/lasting.h"
#include "runtime/settings.h"

namespace qixx::watch {
namespace {

class StoreSettings : public runtime::RuntimeSettings {
 public:
  bool Open(runtime::SettingsScope scope) override {
    config::CConfig& store = store_.emplace();
    // Whatever could be opened is asked; even without a file an entry may come from the
    // environment.
    if (scope == runtime::SettingsScope::kSystemOnly) {
      store.OpenDefault(false);
    } else {
      store.OpenAll(false);
    }
    return true;
  }
  bool GetText(const char* section, const char* entry, std::span<char> value) override {
    return store_.has_value() && config::ReadConfigText(*store_, section, entry, value, false);
  }
  bool GetBoolean(const char* section, const char* entry, bool& value) override {
    return store_.has_value() && store_->GetBoolean(section, entry, value) == config::kConfigOk;
  }
  void Close() override { store_.reset(); }

 private:
  std::optional<config::CConfig> store_;
};

}  // namespace

void ConnectRuntimeSettings() {
  // In static storage and never destroyed: the runtime may ask until the process has ended.
  static runtime::Lasting<StoreSettings> settings;
  runtime::SetRuntimeSettings(&*settings);
}

}  // namespace qixx::watch
