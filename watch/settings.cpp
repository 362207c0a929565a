#include "watch/settings.h"

#include <optional>

#include "config/store.h"
#include "runtime/lasting.h"
#include "runtime/settings.h"

namespace qixx {
namespace {

class StoreSettings : public RuntimeSettings {
 public:
  bool Open(SettingsScope scope) override {
    CConfig& store = store_.emplace();
    // Whatever could be opened is asked; even without a file an entry may come from the
    // environment.
    if (scope == SettingsScope::kSystemOnly) {
      store.OpenDefault(false);
    } else {
      store.OpenAll(false);
    }
    return true;
  }
  bool GetText(const char* section, const char* entry, std::span<char> value) override {
    return store_.has_value() && ReadConfigText(*store_, section, entry, value, false);
  }
  bool GetBoolean(const char* section, const char* entry, bool& value) override {
    return store_.has_value() && store_->GetBoolean(section, entry, value) == kConfigOk;
  }
  void Close() override { store_.reset(); }

 private:
  std::optional<CConfig> store_;
};

}  // namespace

void ConnectRuntimeSettings() {
  // In static storage and never destroyed: the runtime may ask until the process has ended.
  static Lasting<StoreSettings> settings;
  SetRuntimeSettings(&*settings);
}

}  // namespace qixx
