// Result codes of all configuration operations.
#pragma once

#include <cstdint>

namespace qixx::config {

enum class ConfigResult : std::uint32_t {
  kOk = 0,
  /// Not found, no text loaded, or the operation failed.
  kFailed = 6,
  /// No path could be determined.
  kNoPath = 48,
  kNoSection = 0x80001001,
  /// The section is there, but not the entry.
  kNoEntry = 0x80001002,
};

}  // namespace qixx::config
