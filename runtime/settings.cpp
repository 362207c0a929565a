#include "runtime/settings.h"

#include <atomic>

namespace qixx::runtime {
namespace {

constinit std::atomic<SettingsSource> installedSource{nullptr};

}  // namespace

void SetSettingsSource(SettingsSource source) {
  installedSource.store(source);
}

std::unique_ptr<RuntimeSettings> OpenSettings(SettingsScope scope) {
  const SettingsSource source = installedSource.load();
  return source != nullptr ? source(scope) : nullptr;
}

}  // namespace qixx::runtime
