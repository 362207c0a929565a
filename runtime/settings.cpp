#include "runtime/settings.h"

#include <atomic>

namespace qixx::runtime {
namespace {

constinit std::atomic<RuntimeSettings*> installedSettings{nullptr};

}  // namespace

void SetRuntimeSettings(RuntimeSettings* settings) {
  installedSettings.store(settings);
}

RuntimeSettings* GetRuntimeSettings() {
  return installedSettings.load();
}

}  // namespace qixx::runtime
