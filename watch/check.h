// The check of a configuration: reads it as the service would and says what is wrong with it.
//
// It starts nothing, writes nothing, loads no library, traces nothing and makes no folder. Files
// may be hostile: what is said of them is cleaned, and bounded in number.
#pragma once

#include <span>
#include <string>

namespace qixx::watch {

struct CheckResult {
  int exitCode = 0;    ///< 0 without a mistake, 1 with mistakes, kExitUnable for what is not read
  std::string output;  ///< a line for each mistake, then what the service would do
  std::string errors;  ///< a line for each file that cannot be read
};

/// Each file is checked as the system's and only one; without any, those are that the service would
/// take. The environment counts in both cases. `devices` is where the system lists its USB devices,
/// card readers among them.
[[nodiscard]] CheckResult CheckConfiguration(std::span<const std::string> files,
                                             const std::string& devices = "/sys/bus/usb/devices");

}  // namespace qixx::watch
