// Opening files of every kind and writing them back.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <csignal>
#include <string>
#include <vector>

#include "config/file.h"
#include "runtime/files.h"
#include "tests/config/loaded_file.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"

namespace qixx::testing {
namespace {

class ConfigSaving : public ::testing::Test {
 protected:
  /// The content that a file has after one value was set in it.
  std::string Saved(const std::string& content) {
    const std::string path = folder_.Write("saved.conf", content);
    CConfigFile file;
    EXPECT_EQ(file.Open(true, path.c_str(), true), kConfigOk);
    EXPECT_EQ(file.SetValue("S", "E", "v", false), kConfigOk);
    EXPECT_EQ(file.Close(true), kConfigOk);
    return folder_.Read("saved.conf");
  }

  TemporaryFolder folder_;
  TraceCapture trace_;
};

TEST_F(ConfigSaving, TidiesLineEnds) {
  EXPECT_EQ(Saved("[S]\r\nE=1\r\n\r\n\r\n\r\n\r\n[T]\r\n"), "[S]\nE=v\n\n[T]\n");
  EXPECT_EQ(Saved("[T]\r[S]\rE=1\rF=2"), "[T]\n[S]\nE=v\nF=2");
  EXPECT_EQ(Saved("[S]\nE=1\n" + std::string(1000, '\n') + "[T]"),
            "[S]\nE=v\n" + std::string(17, '\n') + "[T]");
  EXPECT_EQ(Saved("[S]\nE=a value that is much longer than the new one\n"), "[S]\nE=v\n");
}

TEST_F(ConfigSaving, LeavesAnUnchangedFileAlone) {
  const std::string path = folder_.Write("a.conf", "\xEF\xBB\xBF[S]\r\n\r\n\r\n\r\n\r\n");
  CConfigFile file;
  file.Open(true, path.c_str(), false);
  EXPECT_TRUE(file.IsOpen());
  EXPECT_STREQ(file.GetPath(), path.c_str());
  EXPECT_EQ(file.Close(true), kConfigOk);
  EXPECT_EQ(folder_.Read("a.conf"), "\xEF\xBB\xBF[S]\r\n\r\n\r\n\r\n\r\n");

  file.Open(false, path.c_str(), false);
  EXPECT_FALSE(file.IsOpen());
  EXPECT_EQ(file.SetValue("S", "E", "v", false), kConfigOk);
  EXPECT_EQ(ValueIn(file, "S", "E"), "v");
  EXPECT_EQ(file.Close(true), kConfigOk);
  EXPECT_EQ(folder_.Read("a.conf"), "\xEF\xBB\xBF[S]\r\n\r\n\r\n\r\n\r\n");
  EXPECT_EQ(trace_.Lines(), (std::vector<std::string>{"Config - Open '" + path + "' (w)",
                                                      "Config - Open '" + path + "' (r)"}));
}

TEST_F(ConfigSaving, MigratedFileIsWritten) {
  const std::string path = folder_.Write("a.conf", "[Soft Tokens]\nE=1\n");
  CConfigFile file;
  file.Open(true, path.c_str(), true);
  EXPECT_EQ(file.Close(false), kConfigOk);
  EXPECT_EQ(folder_.Read("a.conf"), "[SoftToken]\nE=1\n");
  EXPECT_EQ(ValueIn(file, "SoftToken", "E"), "1");
}

TEST_F(ConfigSaving, WarnsOfAChangedFileAndWins) {
  const std::string path = folder_.Write("a.conf", "[S]\n");
  const utimbuf past{1000, 1000};
  ASSERT_EQ(::utime(path.c_str(), &past), 0);
  CConfigFile file;
  file.Open(true, path.c_str(), true);
  file.SetValue("S", "E", "v", false);
  folder_.Write("a.conf", "[Other]\nlonger than before, so that its end must go\n");
  EXPECT_EQ(file.Close(true), kConfigOk);
  EXPECT_EQ(folder_.Read("a.conf"), "[S]\nE=v\n");
  EXPECT_EQ(trace_.Lines(),
            std::vector<std::string>{"Config - WARNING: File '" + path + "' modified"});
}

TEST_F(ConfigSaving, MissingFiles) {
  const std::string path = folder_.Path("new.conf");
  CConfigFile file;
  EXPECT_EQ(file.Open(false, path.c_str(), true), kConfigOk);
  EXPECT_EQ(TextIn(file), "");
  EXPECT_EQ(ValueIn(file, "S", "E"), "(no section)");
  EXPECT_FALSE(PathExists(path.c_str()));
  EXPECT_EQ(trace_.Lines(), std::vector<std::string>{"Config - Failed to open"});

  trace_.Clear();
  EXPECT_EQ(file.Open(true, path.c_str(), true), kConfigOk);
  EXPECT_EQ(folder_.Read("new.conf"), "");
  EXPECT_EQ(file.SetValue("S", "E", "v", false), kConfigOk);
  EXPECT_EQ(file.Close(true), kConfigOk);
  EXPECT_EQ(folder_.Read("new.conf"), "\n[S]\nE=v\n");
  EXPECT_TRUE(trace_.Lines().empty());  // no time was taken, so nothing to warn of
}

TEST_F(ConfigSaving, RefusesWhatIsNoConfiguration) {
  const std::string pipe = folder_.Path("pipe.conf");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  const std::string large = folder_.Write("large.conf", "[S]\n");
  ASSERT_EQ(::truncate(large.c_str(), static_cast<off_t>(kMaximumConfigSize) + 1), 0);
  for (const std::string& path : {pipe, large, folder_.Path(), std::string()}) {
    for (const bool writable : {false, true}) {
      SCOPED_TRACE(path);
      CConfigFile file;
      EXPECT_EQ(file.Open(writable, path.c_str(), true), kConfigOk);
      EXPECT_FALSE(file.IsOpen());
      EXPECT_EQ(TextIn(file), "");
      EXPECT_EQ(file.SetValue("S", "E", "v", false), kConfigOk);
      EXPECT_EQ(file.Close(true), kConfigOk);
    }
  }
  EXPECT_EQ(trace_.Count("Config - Failed to open"), 8U);
}

TEST_F(ConfigSaving, EncodedFilesAreNeverWritten) {
  const std::string path = folder_.Write("a.EDB", "[S]\nE=1\n");
  CConfigFile file;
  file.Open(true, path.c_str(), true);
  EXPECT_EQ(TextIn(file), "");
  EXPECT_EQ(file.SetValue("S", "E", "v", false), kConfigOk);
  EXPECT_EQ(file.Close(true), kConfigFailed);
  EXPECT_EQ(folder_.Read("a.EDB"), "[S]\nE=1\n");
}

TEST_F(ConfigSaving, FullDiskLosesNothing) {
  const std::string content = "[S]\nE=" + std::string(5000, 'x') + "\n";
  const std::string path = folder_.Write("a.conf", content);
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  const auto oldAction = std::signal(SIGXFSZ, SIG_IGN);
  CConfigFile file;
  file.Open(true, path.c_str(), true);
  file.SetValue("A", "B", std::string(5000, 'y').c_str(), false);
  const rlimit small{6000, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  EXPECT_EQ(file.Close(true), kConfigFailed);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
  std::signal(SIGXFSZ, oldAction);
  EXPECT_EQ(folder_.Read("a.conf"), content);
}

TEST_F(ConfigSaving, CapacityHoldsWholeSteps) {
  // A file that fills its step exactly gets another one.
  for (const std::size_t missing : {1U, 0U}) {
    std::string content = "[S]\n";
    content.resize(kGrowthStep - missing, '\n');
    CConfigFile file;
    file.Open(true, folder_.Write("a.conf", content).c_str(), true);
    file.SetValue("S", "E", "v", false);
    EXPECT_EQ(trace_.Count("Config - Increase for set (4)"), 1U);
  }
}

}  // namespace
}  // namespace qixx::testing
