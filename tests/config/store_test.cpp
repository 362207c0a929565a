// Conditions, layers, overrides, paths and typed forms of the store.
#include "config/store.h"

#include <gtest/gtest.h>

#include "config/file.h"
#include "runtime/files.h"
#include "runtime/product.h"
#include "tests/support/environment.h"
#include "tests/support/temporary_folder.h"

namespace qixx::testing {
namespace {

using config::ConfigResult;

class ConfigStore : public ::testing::Test {
 protected:
  ConfigStore() { runtime::InitProductIdentity(); }

  void Load(const std::string& text) {
    ASSERT_EQ(config_.OpenItem(true, folder_.Write("only.conf", text)), ConfigResult::kOk);
  }
  std::string Read(std::string_view section, std::string_view entry) {
    const auto value = config_.GetString(section, entry);
    return value ? value->text : "(none)";
  }

  TemporaryFolder folder_;
  ScopedVariable home_{"HOME", folder_.Path("home").c_str()};
  ScopedVariable local_{"qixconfiglocal", nullptr};
  ScopedVariable global_{"qixconfigglobal", nullptr};
  config::CConfig config_;
};

TEST_F(ConfigStore, UserFileComesBeforeTheSystems) {
  folder_.Write("home/.qix/qix.conf", "[S]\nE=user\nEmpty=\n");
  const std::string system = folder_.Write("sys.conf", "[S]\nE=system\nF=more\nEmpty=full\n");
  const ScopedVariable global("qixconfigglobal", system.c_str());
  ASSERT_EQ(config_.OpenAll(false), ConfigResult::kOk);
  EXPECT_EQ(Read("S", "E"), "user");
  EXPECT_EQ(Read("S", "F"), "more");
  EXPECT_EQ(Read("S", "Empty"), "");
}

TEST_F(ConfigStore, EnumerationsAskBothFilesWithTheSameIndex) {
  Load("[S]\nE=1\nF=2\n[T]\nz=1\n");
  ASSERT_EQ(config_.OpenItem(true, folder_.Write("second.conf", "[T]\na=1\nb=2\n")),
            ConfigResult::kOk);
  std::string names;
  for (std::size_t index = 0; const auto name = config_.EnumSectionEntries("T", index);) {
    names += *name + " ";
  }
  for (std::size_t index = 0; const auto found = config_.EnumEntries(index);) names += found->entry;
  EXPECT_EQ(names, "z b EFz");
}

TEST_F(ConfigStore, FindsItsFiles) {
  const ScopedVariable tooLong("qixconfiglocal", std::string(runtime::kMaxText + 1, 'x').c_str());
  // The library directory makes a per-user installation, even while its file is missing.
  folder_.Write("home/.qix/lib/any", "");
  EXPECT_EQ(config::CConfig::LocateGlobal()->origin, config::PathOrigin::kCurrentDirectory);
  EXPECT_EQ(config::CConfig::LocateLocal()->origin, config::PathOrigin::kHome);
}

TEST_F(ConfigStore, EnvironmentOverridesValues) {
  const ScopedVariable variable("qix:S:E", "0x1F||x|*");
  EXPECT_EQ(Read("S", "E"), "0x1F||x|*");  // without any file, and not resolved
  Load("[S]\nE=file\n");
  EXPECT_EQ(Read("s", "E"), "file");
  EXPECT_EQ(config_.GetString("S", "E", 8), std::nullopt);  // it does not fit, and no file is asked
  EXPECT_EQ(config_.GetString("s", "E", 3)->text, "fil");
}

TEST_F(ConfigStore, ConditionsChooseTheFirstThatHolds) {
  // The application that asks is this test program.
  const std::string program = runtime::GetCallingApplication();
  const std::pair<std::string, const char*> cases[] = {
      {"a|b|*||c", "a|b"},
      {std::string("a|bin/config_test||b|") + program, "b"},
      {"a|config_test,other||b|config_test,,*,{Both}||c", "b"},
      {"a|{both}||b|7;config_test||c|mode:other||d|{Late}||e", "e"},
      {std::string(config::kMaxConfigLine - 100, 'x') + "|nobody||short", "short"}};
  std::string text =
      "[Condition]\n1={Any}   *\n2=no braces\n3={Never} nobody\n4={Both} {Any},*\n"
      "6={Late} *\n[S]\n";
  for (std::size_t row = 0; row < std::size(cases); ++row) {
    text += std::to_string(row) + "=" + cases[row].first + "\n";
  }
  Load(text);
  for (std::size_t row = 0; row < std::size(cases); ++row) {
    EXPECT_EQ(Read("S", std::to_string(row).c_str()), cases[row].second) << cases[row].first;
  }
}

}  // namespace
}  // namespace qixx::testing
