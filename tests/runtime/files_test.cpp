#include "runtime/files.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <memory>

#include "runtime/text.h"
#include "tests/support/environment.h"
#include "tests/support/temporary_folder.h"

namespace qixx::runtime {
namespace {

using testing::ScopedVariable;
using testing::TemporaryFolder;
namespace fs = std::filesystem;

TEST(TempDirectory, IsTheFirstThatIsSetAndFits) {
  char area[kTextSize];
  const ScopedVariable temp("TEMP", ""), tmp("TMP", "/var/tmp");
  EXPECT_EQ(std::string(area, GetTempDirectory(area)), "/var/tmp/");
  const ScopedVariable tooLong("TEMP", std::string(kTextSize, 'x').c_str());
  EXPECT_EQ(std::string(area, GetTempDirectory(area)), "/tmp/");
}

TEST(WholeFiles, AreReadWhenRegularAndNotTooLarge) {
  const TemporaryFolder folder;
  ASSERT_EQ(::mkfifo(folder.Path("pipe").c_str(), 0600), 0);
  fs::create_symlink("/proc/self/cmdline", folder.Path("no size of its own"));
  fs::resize_file(folder.Write("large", ""), kMaximumFileSize + 1);
  folder.Write("step", std::string(65536, 's'));
  const std::pair<const char*, bool> rows[] = {{"none", false},  {"pipe", false},
                                               {"large", false}, {"", false},
                                               {"step", true},   {"no size of its own", true}};
  for (const auto& [name, readable] : rows) {
    std::uint8_t* data = nullptr;
    const std::size_t length = ReadWholeFile(folder.Path(name).c_str(), data);
    const std::unique_ptr<std::uint8_t[]> owned(data);
    EXPECT_EQ(std::string(data, data + length), readable ? folder.Read(name) : "") << name;
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
  EXPECT_FALSE(CopyFileSafely(source.c_str(), target.c_str()));
  EXPECT_FALSE(WriteWholeFileSafely(data, target.c_str()));
  EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
  EXPECT_TRUE(CopyFile(target.c_str(), source.c_str()));
  EXPECT_FALSE(CopyFile(folder.Path("none").c_str(), source.c_str()));
  EXPECT_EQ(folder.Read("source"), "old") << "cut, and kept for a missing source";
}

TEST(Expansion, StaysInsideTheArea) {
  const std::string large(250, 'v');
  const ScopedVariable value("QIXX_LARGE", large.c_str()), endless("QIXX_LOOP", "%QIXX_LOOP%");
  const std::pair<std::string, std::string> rows[] = {
      {"12345%QIXX_LARGE%", "12345" + large},
      {"123456%QIXX_LARGE%", "/usr/lib/123456%QIXX_LARGE%"},
      {"%QIXX_LOOP%", "/usr/lib/%QIXX_LOOP%"},
      {"a%%b%unset%////d\\\\\\e//", "ab/d\\e/"}};
  for (const auto& [text, expected] : rows) {
    char area[kTextSize];
    CopyTextCut(area, text);
    ExpandEnvironment(area);
    ExpandPath(area);
    EXPECT_EQ(area, expected);
  }
}

}  // namespace
}  // namespace qixx::runtime
