// An installation of the product under a temporary folder.
#pragma once

#include <string>

#include "runtime/files.h"
#include "runtime/loader.h"
#include "runtime/settings.h"
#include "runtime/text.h"
#include "tests/support/temporary_folder.h"

namespace qixx::testing {

/// Answers one question: where the product is installed.
class InstallSettings : public RuntimeSettings {
 public:
  explicit InstallSettings(std::string directory) : directory_(std::move(directory)) {}
  bool Open(SettingsScope scope) override { return scope == SettingsScope::kSystemOnly; }
  bool GetText(const char* section, const char* entry, std::span<char> value) override {
    const bool known = std::string(section) == "Install" && std::string(entry) == "Directory";
    return CopyTextIfFits(value, known ? directory_ : "") && known;
  }
  bool GetBoolean(const char*, const char*, bool&) override { return false; }
  void Close() override {}

 private:
  std::string directory_;
};

/// The folder that holds the installation directory "lib". The directory is read once in a process,
/// so there is one folder for all tests of a program.
inline const TemporaryFolder& Installation() {
  static const TemporaryFolder folder;
  static InstallSettings settings(folder.Path("lib"));
  InitProductIdentity();
  RuntimeSettings* const before = GetRuntimeSettings();
  SetRuntimeSettings(&settings);
  (void)InstallDirectory();
  SetRuntimeSettings(before);
  return folder;
}

}  // namespace qixx::testing
