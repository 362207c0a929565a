// Settings for the runtime that a test writes down itself.
#pragma once

#include <map>
#include <string>

#include "runtime/settings.h"
#include "runtime/text.h"

namespace qixx::testing {

/// Answers while it lives.
class FixedSettings : public RuntimeSettings {
 public:
  FixedSettings() { SetRuntimeSettings(this); }
  ~FixedSettings() override { SetRuntimeSettings(nullptr); }
  bool Open(SettingsScope) override { return true; }
  bool GetText(const char* section, const char* entry, std::span<char> value) override {
    const auto found = texts.find(std::string(section) + ":" + entry);
    CopyTextCut(value, found == texts.end() ? "" : found->second);
    return found != texts.end();
  }
  bool GetBoolean(const char*, const char*, bool&) override { return false; }
  void Close() override {}

  std::map<std::string, std::string> texts;  ///< by "section:entry"
};

}  // namespace qixx::testing
