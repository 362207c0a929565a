#include "watch/configuration.h"

#include <optional>
#include <utility>

namespace qixx::watch {

bool LoadProductConfiguration(config::CConfig& config) {
  return config.OpenDefault(false) == config::ConfigResult::kOk && config.HasText();
}

std::string ReadFileText(config::CConfig& config, std::string_view section, std::string_view entry,
                         std::size_t maxLength) {
  std::optional<config::ConfigValue> value = config.GetString(section, entry, maxLength);
  const bool fromFile = value && value->origin == config::ConfigOrigin::kFile;
  return fromFile ? std::move(value->text) : std::string();
}

}  // namespace qixx::watch
