// The card library of a configuration under check. It is not loaded.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "watch/check_report.h"
#include "watch/check_values.h"

namespace qixx::watch {

class CardLibraryCheck {
 public:
  /// `devices` is where the system lists its USB devices; it has to outlive this object.
  CardLibraryCheck(const std::string& devices, Mistakes& mistakes);

  /// Whether the library stands where the configuration says.
  void CheckDirectory(CheckedConfiguration& configuration);
  /// Whether events of empty readers confuse a watcher with "-sync"; to be asked behind the
  /// directory, for such watchers alone.
  void CheckReaders(const Place& watcher);

 private:
  [[nodiscard]] std::size_t CountConfusingReaders() const;

  const std::string& devices_;
  Mistakes& mistakes_;
  std::string directory_;
  std::optional<std::size_t> confusing_;  ///< counted when the first watcher asks
};

}  // namespace qixx::watch
