// Conditions, layers, overrides, paths and typed forms of the store.
#include "config/store.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "config/conditions.h"
#include "config/file.h"
#include "runtime/files.h"
#include "tests/support/environment.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"

namespace qixx::testing {
namespace {

TEST(Conditions, ChooseTheFirstThatHolds) {
  const ConditionContext context{"/opt/bin/Viewer",
                                 [](std::string_view name) { return name == "{On}"; },
                                 [](std::string_view mode) { return mode == "test"; }};
  const std::pair<const char*, const char*> cases[] = {
      {"a|other||b|none", "a|other||b|none"},
      {"a|other||", ""},
      {"a||b|*", "a"},
      {"a|b|*||c", "a|b"},
      {"a|x;;VIEWER||b", "a"},
      {"a| viewer||b|;||c", "c"},
      {"a|/OPT/bin/viewer||b", "a"},
      {"a|bin/viewer||b|/other/viewer||c", "c"},
      {"a|viewer,other||b|viewer,,*,{On}||c", "b"},
      {"a|{on}||b|7;viewer||c|mode:other||d|MODE:test||e", "d"}};
  for (const auto& [value, chosen] : cases) {
    EXPECT_EQ(ResolveConditional(value, context), chosen) << value;
  }
}

class ConfigStore : public ::testing::Test {
 protected:
  ConfigStore() { InitProductIdentity(); }

  void Load(const std::string& text) {
    ASSERT_EQ(config_.OpenItem(true, folder_.Write("only.conf", text).c_str()), kConfigOk);
  }
  std::string Read(const char* section, const char* entry) {
    char value[kTextSize] = "left alone";
    return ReadConfigText(config_, section, entry, value, true) ? value : "(none)";
  }

  TemporaryFolder folder_;
  ScopedVariable home_{"HOME", folder_.Path("home").c_str()};
  ScopedVariable local_{"qixconfiglocal", nullptr};
  ScopedVariable global_{"qixconfigglobal", nullptr};
  TraceCapture trace_;
  CConfig config_;
};

TEST_F(ConfigStore, UserFileComesBeforeTheSystems) {
  folder_.Write("home/.qix/qix.conf", "[S]\nE=user\nEmpty=\n");
  const std::string system = folder_.Write("sys.conf", "[S]\nE=system\nF=more\nEmpty=full\n[T]\n");
  const ScopedVariable global("qixconfigglobal", system.c_str());
  ASSERT_EQ(config_.OpenAll(true), kConfigOk);
  EXPECT_TRUE(config_.HasText());
  EXPECT_EQ(Read("S", "E"), "user");
  EXPECT_EQ(Read("S", "F"), "more");
  EXPECT_EQ(Read("S", "Empty"), "");
  EXPECT_EQ(Read("S", "G"), "(none)");
  EXPECT_EQ(config_.OpenItem(true, system.c_str()), kConfigFailed);
  EXPECT_EQ(trace_.Count("Config - No more internal objects"), 1U);

  EXPECT_EQ(config_.SetString("S", "F", "set", true), kConfigOk);
  EXPECT_EQ(config_.Item(1)->SetValue("S", "E", "set", true), kConfigOk);
  config_.Close(true);
  EXPECT_FALSE(config_.HasText());
  EXPECT_EQ(folder_.Read("home/.qix/qix.conf"), "[S]\nE=user\nEmpty=\nF=set\n");
  EXPECT_EQ(folder_.Read("sys.conf"), "[S]\nE=system\nF=more\nEmpty=full\n[T]\n");
}

TEST_F(ConfigStore, FindsItsFiles) {
  const std::string file = folder_.Path("home/.qix/qix.conf");
  const std::string tooLong(kTextSize, 'x');
  char path[kTextSize];
  for (const char* unusable : {"", tooLong.c_str()}) {
    const ScopedVariable variable("qixconfiglocal", unusable);
    EXPECT_EQ(CConfig::FindLocalPath(path), kConfigOk);
    EXPECT_EQ(path, file);
    EXPECT_TRUE(PathExists(folder_.Path("home/.qix/").c_str()));
    const ScopedVariable home("HOME", unusable);
    EXPECT_EQ(CConfig::FindLocalPath(path), kConfigNoPath);
    EXPECT_STREQ(path, "");
  }
  const ScopedVariable slash("HOME", folder_.Path("home/").c_str());
  // The library directory makes a per-user installation, even while its file is missing.
  folder_.Write("home/.qix/lib/any", "");
  EXPECT_EQ(CConfig::FindGlobalPath(path), kConfigOk);
  EXPECT_STREQ(path, "qix.conf");
  folder_.Write("home/.qix/qix.conf", "[S]\n");
  EXPECT_EQ(CConfig::FindGlobalPath(path), kConfigOk);
  EXPECT_EQ(path, file);
  EXPECT_EQ(config_.OpenAll(false), kConfigOk);  // both are one file
  EXPECT_EQ(config_.Item(1), nullptr);
}

TEST_F(ConfigStore, EnvironmentOverridesValues) {
  const ScopedVariable variable("qix:S:E", "env|*||x");
  const ScopedVariable hexadecimal("qix:S:N", "0x1F");
  EXPECT_EQ(Read("S", "N"), "0x1F");  // without any file
  Load("[S]\nE=file\nN=5\n");
  char value[9];
  EXPECT_EQ(config_.GetString("S", "E", value, true), kConfigFailed);
  EXPECT_STREQ(value, "env|*||x");  // not resolved
  EXPECT_EQ(config_.GetString("S", "E", {value, 8}, true), kConfigFailed);
  EXPECT_STREQ(value, "");
  EXPECT_EQ(Read("s", "E"), "file");
  std::uint64_t number = 0;
  EXPECT_EQ(config_.GetUnsigned("S", "N", number), kConfigOk);
  EXPECT_EQ(number, 31U);
}

TEST_F(ConfigStore, ConvertsTypedValues) {
  Load("[S]\nplain=42x\nhex=0X2a\nminus=-7\nlarge=99999999999999999999\nno=0\n");
  const std::pair<const char*, const char*> cases[] = {
      {"plain", "42 42 42"},
      {"hex", "42 42 0"},
      {"minus", "0 -7 -7"},
      // Sixteen characters fit, fifteen where one item is asked.
      {"large", "9999999999999999 9999999999999999 2147483647"},
      {"missing", "9999999999999999 9999999999999999 2147483647"}};
  std::uint64_t asUnsigned = 0;
  std::int64_t asInteger = 0;
  std::int32_t ofItem = 0;
  for (const auto& [entry, numbers] : cases) {
    const ConfigResult result = config_.GetUnsigned("S", entry, asUnsigned);
    EXPECT_EQ(config_.GetInteger("S", entry, asInteger), result);
    EXPECT_EQ(config_.GetItemInteger(0, "S", entry, ofItem), result);
    const std::string got = std::to_string(asUnsigned) + " " + std::to_string(asInteger);
    EXPECT_EQ(got + " " + std::to_string(ofItem), numbers) << entry;
  }
  bool flag = true;
  EXPECT_EQ(config_.GetBoolean("S", "no", flag), kConfigOk);
  EXPECT_FALSE(flag);
}

TEST_F(ConfigStore, ResolvesConditionalValues) {
  Load("[S]\nNamed=on|{Both}||off\nLong=" + std::string(kMaximumLine - 100, 'x') +
       "|nobody||short\n[Condition]\n1={Any}   *\n"
       "2=no braces\n3={Never} nobody\n4={" +
       std::string(kTextSize, 'n') + "}\n5={Both} {Any},*\n7={Late} *\n");
  EXPECT_EQ(Read("S", "Named"), "on");
  EXPECT_EQ(trace_.Count("Config - Active named conditions: {Any}{Both}"), 1U);
  char tiny[4];
  EXPECT_EQ(config_.GetString("S", "Long", tiny, true), kConfigOk);
  EXPECT_STREQ(tiny, "sho");
  config_.SetRaw(true);
  EXPECT_EQ(Read("S", "Named"), "on|{Both}||off");
}

}  // namespace
}  // namespace qixx::testing
