#include "runtime/files.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <memory>

#include "runtime/loader.h"
#include "runtime/text.h"
#include "tests/support/environment.h"
#include "tests/support/temporary_folder.h"

namespace qixx {
namespace {

using testing::ScopedVariable;
using testing::TemporaryFolder;
namespace fs = std::filesystem;

TEST(TempDirectory, Sources) {
  const std::string longPath(kTextSize, 'x');
  const char* const kRows[][3] = {{"/a/", "/b", "/a/"},
                                  {"", "/var/tmp", "/var/tmp/"},
                                  {nullptr, "", "/tmp/"},
                                  {longPath.c_str(), "/b", "/tmp/"}};
  for (const auto& [temp, tmp, expected] : kRows) {
    const ScopedVariable first("TEMP", temp);
    const ScopedVariable second("TMP", tmp);
    char area[kTextSize] = "before";
    EXPECT_EQ(GetTempDirectory(area), std::string(expected).size());
    EXPECT_STREQ(area, expected);
  }
}

TEST(WholeFiles, AreRegularAndOfALimitedSize) {
  const TemporaryFolder folder;
  ASSERT_EQ(::mkfifo(folder.Path("pipe").c_str(), 0600), 0);
  fs::create_symlink("/proc/self/cmdline", folder.Path("no size of its own"));
  fs::resize_file(folder.Write("large", ""), kMaximumFileSize + 1);
  folder.Write("step", std::string(65536, 's'));
  folder.Write("more", std::string(65537, 'm'));
  using enum ReadOutcome;
  const std::pair<const char*, ReadOutcome> kRows[] = {
      {"none", kMissing}, {"pipe", kFailed}, {"large", kFailed},           {"", kFailed},
      {"step", kRead},    {"more", kRead},   {"no size of its own", kRead}};
  for (const auto& [name, outcome] : kRows) {
    std::uint8_t* data = nullptr;
    std::size_t length = 1;
    EXPECT_EQ(ReadWholeFile(folder.Path(name).c_str(), data, length), outcome) << name;
    const std::unique_ptr<std::uint8_t[]> owned(data);
    EXPECT_EQ(std::string(data, data + length), outcome == kRead ? folder.Read(name) : "") << name;
  }
}

TEST(WholeFiles, NothingIsLostWithoutRoom) {
  const TemporaryFolder folder;
  const std::string source = folder.Write("source", "something longer");
  const std::string target = folder.Write("target", "old");
  const std::uint8_t data[] = {'n', 'e', 'w'};
  rlimit before = {};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  ::signal(SIGXFSZ, SIG_IGN);
  const rlimit tight = {2, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &tight), 0);
  EXPECT_FALSE(WriteWholeFile(data, folder.Path("new").c_str()));
  EXPECT_FALSE(CopyFileSafely(source.c_str(), target.c_str()));
  EXPECT_FALSE(WriteWholeFileSafely(data, target.c_str()));
  EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
  EXPECT_TRUE(CopyFile(target.c_str(), source.c_str()));
  EXPECT_FALSE(CopyFile(folder.Path("none").c_str(), source.c_str()));
  EXPECT_EQ(folder.Read("source"), "old") << "cut, and kept for a missing source";
}

TEST(Expansion, StaysInsideTheArea) {
  const ScopedVariable nested("QIXX_NESTED", "<%QIXX_LARGE%>");
  const ScopedVariable large("QIXX_LARGE", std::string(250, 'v').c_str());
  const ScopedVariable endless("QIXX_LOOP", "%QIXX_LOOP%");
  const std::string install = InstallDirectory();
  const std::string tooLong = "%" + std::string(98, 'n') + "%";
  const std::pair<std::string, std::string> kRows[] = {
      {"a%QIXX_NESTED%b", "a<" + std::string(250, 'v') + ">b"},
      {"12345%QIXX_LARGE%", "12345" + std::string(250, 'v')},
      {"123456%QIXX_LARGE%", install + "123456%QIXX_LARGE%"},
      {"%QIXX_LOOP%", install + "%QIXX_LOOP%"},
      {"a%%b%unset%", install + "ab"},
      {tooLong, install + tooLong},
      {std::string(250, 'n'), std::string(250, 'n')},
      {"c////d\\\\\\e//", "c/d\\e/"}};
  for (const auto& [text, expected] : kRows) {
    char area[kTextSize];
    CopyTextCut(area, text);
    ExpandEnvironment(area);
    EXPECT_TRUE(ExpandPath(area));
    EXPECT_EQ(area, expected);
  }
}

}  // namespace
}  // namespace qixx
