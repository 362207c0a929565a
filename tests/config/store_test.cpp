// Layers, overrides, paths and typed forms of the store.
#include "config/store.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "runtime/files.h"
#include "tests/config/loaded_file.h"
#include "tests/support/environment.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"

namespace qixx::testing {
namespace {

class ConfigStore : public ::testing::Test {
 protected:
  ConfigStore() { InitProductIdentity(); }

  /// A store with the text as its only item.
  void Load(CConfig& config, const std::string& text) {
    ASSERT_EQ(config.OpenItem(true, folder_.Write("only.conf", text).c_str()), kConfigOk);
  }

  static std::string Read(CConfig& config, const char* section, const char* entry) {
    char value[kTextSize] = "left alone";
    return ReadConfigText(config, section, entry, value, true) ? value : "(none)";
  }

  TemporaryFolder folder_;
  ScopedVariable home_{"HOME", folder_.Path("home").c_str()};
  ScopedVariable local_{"qixconfiglocal", nullptr};
  ScopedVariable global_{"qixconfigglobal", nullptr};
};

TEST_F(ConfigStore, UserFileComesBeforeTheSystems) {
  const std::string user = folder_.Write("home/.qix/qix.conf", "[S]\nE=user\nEmpty=\n");
  const std::string system = folder_.Write("sys.conf", "[S]\nE=system\nF=more\nEmpty=full\n[T]\n");
  const ScopedVariable global("qixconfigglobal", system.c_str());
  CConfig config;
  EXPECT_FALSE(config.HasText());
  ASSERT_EQ(config.OpenAll(true), kConfigOk);
  EXPECT_STREQ(config.Item(0)->GetPath(), user.c_str());
  EXPECT_STREQ(config.Item(1)->GetPath(), system.c_str());
  EXPECT_TRUE(config.HasText());
  EXPECT_EQ(Read(config, "S", "E"), "user");
  EXPECT_EQ(Read(config, "S", "F"), "more");
  EXPECT_EQ(Read(config, "S", "Empty"), "");
  EXPECT_EQ(Read(config, "S", "G"), "(none)");
  EXPECT_TRUE(config.SectionExists("t"));

  char entry[kTextSize];
  std::size_t index = 0;
  EXPECT_EQ(config.EnumSectionEntries("S", entry, index), kConfigOk);
  index = 2;  // the end of the first file is the end
  EXPECT_EQ(config.EnumSectionEntries("S", entry, index), kConfigFailed);
  EXPECT_EQ(index, 3U);

  TraceCapture trace;
  EXPECT_EQ(config.OpenItem(true, system.c_str()), kConfigFailed);
  EXPECT_EQ(trace.Lines(), std::vector<std::string>{"Config - No more internal objects"});

  EXPECT_EQ(config.SetString("S", "F", "set", true), kConfigOk);
  EXPECT_EQ(config.Item(1)->SetValue("S", "E", "set", true), kConfigOk);
  config.Close(true);
  EXPECT_FALSE(config.HasText());
  EXPECT_EQ(folder_.Read("home/.qix/qix.conf"), "[S]\nE=user\nEmpty=\nF=set\n");
  EXPECT_EQ(folder_.Read("sys.conf"), "[S]\nE=system\nF=more\nEmpty=full\n[T]\n");
}

TEST_F(ConfigStore, FindsTheUsersFile) {
  const std::string expected = folder_.Path("home/.qix/qix.conf");
  const std::string tooLong(kTextSize, 'x');
  folder_.Write("home/other", "");
  char path[kTextSize];
  for (const char* unusable : {"", tooLong.c_str()}) {
    const ScopedVariable variable("qixconfiglocal", unusable);
    EXPECT_EQ(CConfig::FindLocalPath(path), kConfigOk);
    EXPECT_EQ(path, expected);
    const ScopedVariable home("HOME", unusable);
    EXPECT_EQ(CConfig::FindLocalPath(path), kConfigNoPath);
    EXPECT_STREQ(path, "");
  }
  EXPECT_TRUE(PathExists(folder_.Path("home/.qix/").c_str()));
  const ScopedVariable slash("HOME", (folder_.Path("home") + "/").c_str());
  EXPECT_EQ(CConfig::FindLocalPath(path), kConfigOk);
  EXPECT_EQ(path, expected);
}

TEST_F(ConfigStore, FindsTheSystemsFile) {
  char path[kTextSize];
  // The library directory makes a per-user installation, even while its file is missing.
  std::filesystem::create_directories(folder_.Path("home/.qix/lib"));
  EXPECT_EQ(CConfig::FindGlobalPath(path), kConfigOk);
  EXPECT_STREQ(path, "qix.conf");
  EXPECT_EQ(CConfig::FindGlobalPath({path, 4}), kConfigNoPath);
  const std::string file = folder_.Write("home/.qix/qix.conf", "[S]\n");
  EXPECT_EQ(CConfig::FindGlobalPath(path), kConfigOk);
  EXPECT_EQ(path, file);
  CConfig config;
  EXPECT_EQ(config.OpenAll(false), kConfigOk);  // both are one file
  EXPECT_EQ(config.Item(1), nullptr);

  CConfig::SetStaticMode(true);
  CConfig builtIn;
  EXPECT_EQ(builtIn.OpenDefault(false), kConfigOk);
  CConfig::SetStaticMode(false);
  EXPECT_FALSE(builtIn.HasText());
  EXPECT_EQ(builtIn.GetString("S", "E", path, false), kConfigNoSection);
}

TEST_F(ConfigStore, EnvironmentOverridesValues) {
  CConfig config;
  Load(config, "[S]\nE=file\nN=5\n[Condition]\n1={A} none\n");
  char value[8] = "before";
  {
    const ScopedVariable variable("qix:S:E", "env|*||x");
    char area[16];
    EXPECT_EQ(config.GetString("S", "E", area, true), kConfigFailed);
    EXPECT_STREQ(area, "env|*||x");  // not resolved
    EXPECT_EQ(config.GetString("s", "E", value, true), kConfigOk);
    EXPECT_STREQ(value, "file");
  }
  for (const char* unusable : {"", "12345678"}) {
    const ScopedVariable variable("qix:S:E", unusable);
    EXPECT_EQ(config.GetString("S", "E", value, true), kConfigFailed);
    EXPECT_STREQ(value, "");
  }
  const ScopedVariable variable("qix:S:N", "0x1F");
  std::uint64_t number = 0;
  EXPECT_EQ(config.GetUnsigned("S", "N", number), kConfigOk);
  EXPECT_EQ(number, 31U);
  CConfig closed;
  EXPECT_EQ(Read(closed, "S", "N"), "0x1F");
}

TEST_F(ConfigStore, ConvertsTypedValues) {
  CConfig config;
  Load(config,
       "[S]\nplain=42x\nhex=0X2a\nminus=-7\nword=yes\nlarge=99999999999999999999\n"
       "base_Extra=q\n");
  const struct {
    const char* entry;
    std::uint64_t asUnsigned;
    std::int64_t asInteger;
    std::int32_t ofItem;
  } cases[] = {{"plain", 42, 42, 42},
               {"hex", 42, 42, 0},
               {"minus", 0, -7, -7},
               {"word", 0, 0, 0},
               // Sixteen characters fit, fifteen where one item is asked.
               {"large", 9999999999999999, 9999999999999999, INT32_MAX}};
  std::uint64_t asUnsigned = 0;
  std::int64_t asInteger = 0;
  std::int32_t ofItem = 0;
  bool flag = true;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.entry);
    EXPECT_EQ(config.GetUnsigned("S", c.entry, asUnsigned), kConfigOk);
    EXPECT_EQ(config.GetInteger("S", c.entry, asInteger), kConfigOk);
    EXPECT_EQ(config.GetItemInteger(0, "S", c.entry, ofItem), kConfigOk);
    EXPECT_EQ(config.GetBoolean("S", c.entry, flag), kConfigOk);
    EXPECT_EQ(asUnsigned, c.asUnsigned);
    EXPECT_EQ(asInteger, c.asInteger);
    EXPECT_EQ(ofItem, c.ofItem);
    EXPECT_EQ(flag, c.asUnsigned != 0);
  }
  EXPECT_EQ(config.GetUnsigned("S", "missing", asUnsigned), kConfigNoEntry);
  EXPECT_EQ(config.GetBoolean("T", "word", flag), kConfigNoSection);
  EXPECT_EQ(asUnsigned, 9999999999999999U);
  EXPECT_TRUE(flag);

  char text[8];
  EXPECT_EQ(config.GetQualified("S", "base", "extra", text, false), kConfigOk);
  EXPECT_STREQ(text, "q");
  EXPECT_EQ(config.SetInteger("S", "plain", INT32_MIN), kConfigOk);
  EXPECT_EQ(config.SetUnsigned("S", "hex", UINT32_MAX), kConfigOk);
  EXPECT_EQ(Read(config, "S", "plain"), "-2147483648");
  EXPECT_EQ(Read(config, "S", "hex"), "4294967295");
}

TEST_F(ConfigStore, ResolvesConditionalValues) {
  const std::string longer(kMaximumLine - 100, 'x');
  CConfig config;
  Load(config,
       "[S]\nDefault=a|nobody||b\nNone=a|nobody||b|no\nNamed=on|{Both}||off\nLong=" + longer +
           "|nobody||short\nRaised=1|{Never}||20\n[Condition]\n1={Any}   *\n"
           "2=no braces\n3={Never} nobody\n4={" +
           std::string(kTextSize, 'n') + "}\n5={Both} {Any},*\n7={Late} *\n");
  TraceCapture trace;
  EXPECT_EQ(Read(config, "S", "Default"), "b");
  EXPECT_EQ(Read(config, "S", "None"), "a|nobody||b|no");
  EXPECT_EQ(Read(config, "S", "Named"), "on");
  EXPECT_EQ(Read(config, "S", "Named"), "on");
  EXPECT_EQ(trace.Count("Config - Active named conditions: {Any}{Both}"), 1U);
  std::uint64_t number = 0;
  EXPECT_EQ(config.GetUnsigned("S", "Raised", number), kConfigOk);
  EXPECT_EQ(number, 20U);
  char tiny[4];
  EXPECT_EQ(config.GetString("S", "Long", tiny, true), kConfigOk);
  EXPECT_STREQ(tiny, "sho");

  char application[kTextSize];
  ASSERT_TRUE(GetCallingApplication(application));
  config.SetString("S", "Mine", ("me|" + std::string(application) + "||other").c_str(), true);
  EXPECT_EQ(Read(config, "S", "Mine"), "me");
  config.SetRaw(true);
  EXPECT_EQ(Read(config, "S", "Named"), "on|{Both}||off");
}

}  // namespace
}  // namespace qixx::testing
