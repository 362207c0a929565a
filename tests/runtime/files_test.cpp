#include "runtime/files.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <memory>
#include <string>

#include "runtime/text.h"
#include "tests/runtime/installation.h"
#include "tests/support/environment.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"

namespace qixx {
namespace {

using testing::Installation;
using testing::ScopedVariable;
using testing::TemporaryFolder;
using testing::TraceCapture;

std::string TextIn(std::span<const char> area) {
  return std::string(TextOf(area));
}

mode_t ModeOf(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

TEST(TempDirectory, Sources) {
  const std::string longPath(kTextSize, 'x');
  const struct {
    const char* name;
    const char* temp;
    const char* tmp;
    const char* expected;
  } kRows[] = {
      {"first variable wins", "/a/", "/b", "/a/"},
      {"slash added", "/a", nullptr, "/a/"},
      {"empty first variable", "", "/var/tmp", "/var/tmp/"},
      {"neither variable", nullptr, "", "/tmp/"},
      {"first variable too long", longPath.c_str(), "/b", "/tmp/"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    const ScopedVariable temp("TEMP", row.temp);
    const ScopedVariable tmp("TMP", row.tmp);
    char area[kTextSize] = "before";
    EXPECT_EQ(GetTempDirectory(area), std::string(row.expected).size());
    EXPECT_EQ(TextIn(area), row.expected);
  }
}

TEST(TempDirectory, FileNamesFitOrAreDropped) {
  Installation();
  const ScopedVariable temp("TEMP", "/a");
  char area[kTextSize] = "before";
  EXPECT_FALSE(MakeTempFileName("log", std::span(area).first(8)));
  EXPECT_FALSE(MakeTempFileName(std::string(60, 'n').c_str(), area));
  EXPECT_EQ(TextIn(area), "before");
  char expected[kTextSize];
  std::snprintf(expected, sizeof expected, "/a/~qixlog%.4d.txt", ::getpid());
  EXPECT_TRUE(MakeTempFileName("log", area));
  EXPECT_STREQ(area, expected);
}

TEST(Paths, CreatesOnlyWhatEndsInASlash) {
  const TemporaryFolder folder;
  const TraceCapture trace;
  EXPECT_TRUE(CreatePath(folder.Path("a/b/c").c_str()));
  EXPECT_EQ(ModeOf(folder.Path("a/b")), 0700U);
  EXPECT_FALSE(PathExists(folder.Path("a/b/c").c_str()));
  EXPECT_TRUE(CreatePath(folder.Path("a/b//c/").c_str()));
  EXPECT_TRUE(PathExists(folder.Path("a/b/c/").c_str()));
  const std::string blocked = folder.Write("file", "x") + "/below/";
  EXPECT_FALSE(CreatePath(blocked.c_str()));
  EXPECT_TRUE(trace.Has("Helper - Create path '" + blocked + "'"));
}

TEST(Paths, ExistenceAndSize) {
  const TemporaryFolder folder;
  const std::string file = folder.Write("file", "12345");
  EXPECT_TRUE(PathExists("/"));
  EXPECT_TRUE(PathExists((folder.Path() + "/").c_str()));
  EXPECT_FALSE(PathExists(""));
  EXPECT_EQ(GetFileSize(file.c_str()), 5U);
  EXPECT_EQ(GetFileSize(folder.Path().c_str()), 0U);
  EXPECT_TRUE(DeleteFile(file.c_str()));
  EXPECT_FALSE(DeleteFile(file.c_str()));
}

TEST(WholeFiles, EveryStepOfTheBuffer) {
  const TemporaryFolder folder;
  for (const std::size_t size : {1U, 65535U, 65536U, 65537U, 200000U}) {
    const std::string content = std::string(size - 1, 'c') + 'e';
    std::uint8_t* data = nullptr;
    EXPECT_EQ(ReadWholeFile(folder.Write("file", content).c_str(), data), size);
    const std::unique_ptr<std::uint8_t[]> owned(data);
    EXPECT_EQ(std::string(data, data + size), content);
  }
}

TEST(WholeFiles, Outcomes) {
  const TemporaryFolder folder;
  const std::string large = folder.Write("large", "");
  std::filesystem::resize_file(large, kMaximumFileSize + 1);
  const std::string pipe = folder.Path("pipe");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  const struct {
    const char* name;
    std::string path;
    ReadOutcome outcome;
    bool content;
  } kRows[] = {
      {"missing", folder.Path("none"), ReadOutcome::kMissing, false},
      {"empty", folder.Write("empty", ""), ReadOutcome::kRead, false},
      {"directory", folder.Path(), ReadOutcome::kFailed, false},
      {"pipe without writer", pipe, ReadOutcome::kFailed, false},
      {"over the limit", large, ReadOutcome::kFailed, false},
      {"no size of its own", "/proc/self/cmdline", ReadOutcome::kRead, true},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    std::uint8_t* data = nullptr;
    std::size_t length = 1;
    EXPECT_EQ(ReadWholeFile(row.path.c_str(), data, length), row.outcome);
    const std::unique_ptr<std::uint8_t[]> owned(data);
    EXPECT_EQ(length != 0, row.content);
    EXPECT_EQ(data != nullptr, row.content);
  }
}

TEST(WholeFiles, WritesCutAndReportShortness) {
  const TemporaryFolder folder;
  const std::string file = folder.Write("file", "something longer");
  const std::uint8_t data[] = {'n', 'e', 'w'};
  EXPECT_TRUE(WriteWholeFile(data, file.c_str()));
  EXPECT_EQ(folder.Read("file"), "new");
  EXPECT_FALSE(WriteWholeFile(data, folder.Path().c_str()));

  struct rlimit before {};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  const auto handler = ::signal(SIGXFSZ, SIG_IGN);
  const struct rlimit tight { .rlim_cur = 2, .rlim_max = before.rlim_max };
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &tight), 0);
  EXPECT_FALSE(WriteWholeFile(data, file.c_str()));
  EXPECT_FALSE(CopyFile("/proc/self/cmdline", file.c_str()));
  EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
  ::signal(SIGXFSZ, handler);
}

TEST(Copies, ContentAndWhatMayNotBeCopied) {
  const TemporaryFolder folder;
  const std::string content = std::string(1000, 'a') + '\0' + "end";
  const std::string source = folder.Write("source", content);
  const std::string target = folder.Write("target", std::string(3000, 'b'));
  EXPECT_TRUE(CopyFile(source.c_str(), target.c_str()));
  EXPECT_EQ(folder.Read("target"), content);
  EXPECT_TRUE(CopyFile(source.c_str(), source.c_str()));
  EXPECT_EQ(folder.Read("source"), content) << "a file copied onto itself";
  EXPECT_FALSE(CopyFile(folder.Path("none").c_str(), folder.Path("new").c_str()));
  EXPECT_FALSE(CopyFile(folder.Path().c_str(), folder.Path("new").c_str()));
  EXPECT_FALSE(PathExists(folder.Path("new").c_str()));
}

TEST(Copies, SafelyUnderAnotherName) {
  const TemporaryFolder folder;
  const std::string source = folder.Write("source", "content");
  const std::string target = folder.Path("target");
  ASSERT_EQ(::chmod(source.c_str(), 0640), 0);
  EXPECT_TRUE(CopyFileSafely(source.c_str(), target.c_str()));
  EXPECT_EQ(ModeOf(target), 0640U);
  EXPECT_FALSE(CopyFileSafely(folder.Path("none").c_str(), target.c_str()));
  EXPECT_FALSE(CopyFileSafely(source.c_str(), folder.Path().c_str()));
  const std::uint8_t data[] = {'n', 'e', 'w'};
  EXPECT_FALSE(WriteWholeFileSafely(data, folder.Path("none").c_str()));
  EXPECT_TRUE(WriteWholeFileSafely(data, source.c_str()));
  EXPECT_EQ(ModeOf(source), 0640U);
  EXPECT_EQ(folder.Read("source") + folder.Read("target"), "newcontent");
  const std::filesystem::directory_iterator entries(folder.Path());
  EXPECT_EQ(std::distance(begin(entries), end(entries)), 2) << "nothing is left over";
}

TEST(CallingApplication, IsTheNameOfTheStart) {
  std::string started = TemporaryFolder::ReadFile("/proc/self/cmdline");
  started.resize(started.find('\0'));
  char area[kTextSize] = "before";
  ASSERT_TRUE(GetCallingApplication(area));
  EXPECT_EQ(TextIn(area), started);
  EXPECT_TRUE(GetCurrentDirectory(area));
  EXPECT_EQ(TextIn(area), started.substr(0, started.rfind('/') + 1));
  EXPECT_FALSE(GetCallingApplication(std::span(area).first(2)));
  EXPECT_EQ(TextIn(area), "");
}

TEST(ExpandPath, PlaceholdersAndSlashes) {
  const std::string install = Installation().Path("lib/");
  char area[kTextSize];
  ASSERT_TRUE(GetCurrentDirectory(area));
  const std::string current = TextIn(area);
  const struct {
    const char* name;
    std::string text;
    bool prefixInstall;
    std::string expected;
  } kRows[] = {
      {"current", "%Current%tool", true, current + "tool"},
      {"both spellings", "%CURRENT%a:%Current%b", true, current + "a:" + current + "b"},
      {"another spelling", "/%current%", true, "/%current%"},
      {"install location", "%InstallLocation%/x", false, install + "x"},
      {"install in capitals", "%INSTALLLOCATION%x", false, install + "x"},
      {"bare name", "tool", true, install + "tool"},
      {"bare name kept", "tool", false, "tool"},
      {"bare name does not fit", std::string(240, 'n'), true, std::string(240, 'n')},
      {"runs", "a////b\\\\\\c//", true, "a/b\\c/"},
      {"URL", "http://h//%Current%", true, "http://h//%Current%"},
      {"empty", "", false, ""},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    CopyTextCut(area, row.text);
    EXPECT_EQ(ExpandPath(area, row.prefixInstall), !row.expected.empty());
    EXPECT_EQ(TextIn(area), row.expected);
  }
}

TEST(ExpandEnvironment, Replacements) {
  const ScopedVariable one("QIXX_ONE", "1");
  const ScopedVariable nested("QIXX_NESTED", "<%QIXX_ONE%>");
  const ScopedVariable endless("QIXX_LOOP", "%QIXX_LOOP%");
  const ScopedVariable large("QIXX_LARGE", std::string(250, 'v').c_str());
  const ScopedVariable none("QIXX_NONE", nullptr);
  const std::string longest = "%" + std::string(97, 'n') + "%";
  const std::string tooLong = "%" + std::string(98, 'n') + "%";
  const struct {
    const char* name;
    std::string text;
    bool replaced;
    std::string expected;
  } kRows[] = {
      {"value", "a%QIXX_ONE%b", true, "a1b"},
      {"value with a variable", "%QIXX_NESTED%", true, "<1>"},
      {"unset", "a%QIXX_NONE%b", true, "ab"},
      {"double sign", "a%%b", true, "ab"},
      {"single sign", "100%", false, "100%"},
      {"names itself", "%QIXX_LOOP%", true, "%QIXX_LOOP%"},
      {"longest name", longest, true, ""},
      {"name too long", tooLong, false, tooLong},
      {"just fits", "12345%QIXX_LARGE%", true, "12345" + std::string(250, 'v')},
      {"does not fit", "123456%QIXX_LARGE%", false, "123456%QIXX_LARGE%"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    char area[kTextSize];
    CopyTextCut(area, row.text);
    EXPECT_EQ(ExpandEnvironment(area), row.replaced);
    EXPECT_EQ(TextIn(area), row.expected);
  }
}

}  // namespace
}  // namespace qixx
