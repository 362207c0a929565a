// What the runtime needs to know from the configuration.
//
// The configuration stands above this folder. So the runtime declares its question here, a unit
// above the configuration answers it, and the program's entry ties the two together at start.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace qixx::runtime {

/// Which files a question goes to.
enum class SettingsScope {
  kUserThenSystem,  ///< the user's file, then the system's
  kSystemOnly,      ///< the system's file alone
};

/// Opened settings; they are closed by the destructor. Belongs to one thread at a time.
class RuntimeSettings {
 public:
  virtual ~RuntimeSettings() = default;
  /// The value, cut to kMaxText. An entry that is present and empty gives an empty text.
  [[nodiscard]] virtual std::optional<std::string> GetText(std::string_view section,
                                                           std::string_view entry) = 0;
  [[nodiscard]] virtual std::optional<bool> GetBoolean(std::string_view section,
                                                       std::string_view entry) = 0;
};

/// Opens the settings of a scope; null when there is nothing to ask.
using SettingsSource = std::unique_ptr<RuntimeSettings> (*)(SettingsScope scope);

/// Installs the source, or removes it with null.
void SetSettingsSource(SettingsSource source);
/// Null without a source, and when the source has nothing to ask.
[[nodiscard]] std::unique_ptr<RuntimeSettings> OpenSettings(SettingsScope scope);

}  // namespace qixx::runtime
