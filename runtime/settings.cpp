#include "runtime/settings.h"

#include <atomic>

namespace qixx {
namespace {

constinit std::atomic<RuntimeSettings*> installedSettings{nullptr};

}  // namespace

void SetRuntimeSettings(RuntimeSettings* settings) {
  installedSettings.store(settings);
}

RuntimeSettings* GetRuntimeSettings() {
  return installedSettings.load();
}

}  // namespace qixx
