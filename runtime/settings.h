// What the runtime needs to know from the configuration.
//
// The configuration stands above this folder, so the question is turned around: the runtime
// declares it here, a unit above the configuration answers it, and the program's entry ties the two
// together at start.
#pragma once

#include <span>

namespace qixx::runtime {

/// Which files a question goes to.
enum class SettingsScope {
  kUserThenSystem,  ///< the user's file, then the system's
  kSystemOnly,      ///< the system's file alone
};

/// A source of settings: Open, any number of questions, Close. One user at a time.
class RuntimeSettings {
 public:
  virtual ~RuntimeSettings() = default;
  /// False when there is nothing to ask; Close is then not needed.
  virtual bool Open(SettingsScope scope) = 0;
  /// True when the entry was read; a present but empty entry is read. `value` is emptied otherwise.
  virtual bool GetText(const char* section, const char* entry, std::span<char> value) = 0;
  /// True when the entry was read; `value` is left alone otherwise.
  virtual bool GetBoolean(const char* section, const char* entry, bool& value) = 0;
  virtual void Close() = 0;
};

/// Installs the source (not owned; must outlive its use), or removes it with null.
void SetRuntimeSettings(RuntimeSettings* settings);
/// The installed source, or null.
[[nodiscard]] RuntimeSettings* GetRuntimeSettings();

}  // namespace qixx::runtime
