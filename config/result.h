// Result codes of all configuration operations.
#pragma once

#include <cstdint>

namespace qixx::config {

using ConfigResult = std::uint32_t;

inline constexpr ConfigResult kConfigOk = 0;
/// Not found, no text loaded, or the operation failed.
inline constexpr ConfigResult kConfigFailed = 6;
/// No path could be determined.
inline constexpr ConfigResult kConfigNoPath = 48;
inline constexpr ConfigResult kConfigNoSection = 0x80001001;
inline constexpr ConfigResult kConfigNoEntry = 0x80001002;

}  // namespace qixx::config
