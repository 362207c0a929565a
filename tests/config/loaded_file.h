// Configuration files for tests, made from a text.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "config/file.h"

namespace qixx::testing {

/// A row of a table: a text before something is done to it and after.
struct TextCase {
  const char* name;
  std::string before;
  std::string after;
};

/// Holds a text without any file.
class LoadedFile : public CConfigFile {
 public:
  explicit LoadedFile(std::string_view text) {
    EXPECT_EQ(LoadText(text.data(), text.size()), kConfigOk);
  }
};

inline std::string TextIn(const CConfigItem& item) {
  std::size_t size = kMaximumLoadedText;
  std::string text(size, '\0');
  if (item.GetText(text.data(), size) != kConfigOk) return "(no text)";
  return text.substr(0, size);
}

/// The value, or its result code in brackets.
inline std::string ValueIn(CConfigItem& item, const char* section, const char* entry) {
  char value[kTextSize] = "left alone";
  const ConfigResult result = item.GetValue(section, entry, value, true);
  if (result == kConfigOk) return value;
  EXPECT_STREQ(value, "");
  if (result == kConfigFailed) return "(6)";
  return result == kConfigNoSection ? "(no section)" : "(no entry)";
}

}  // namespace qixx::testing
