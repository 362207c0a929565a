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
#include "tests/config/loaded_file.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"

namespace qixx::testing {
namespace {

class ConfigSaving : public ::testing::Test {
 protected:
  void Open(const std::string& content) {
    file_.Close(true);
    folder_.Write("a.conf", content);
    EXPECT_EQ(file_.Open(true, path_.c_str(), false), kConfigOk);
  }
  void Set() { EXPECT_EQ(file_.SetValue("S", "E", "v", false), kConfigOk); }
  std::string Content() { return folder_.Read("a.conf"); }

  TemporaryFolder folder_;
  const std::string path_ = folder_.Path("a.conf");
  TraceCapture trace_;
  CConfigFile file_;
};

TEST_F(ConfigSaving, TidiesTheWholeText) {
  const std::string thousand(1000, '\n');
  const std::string comment(kGrowthStep - 8, ';');
  const TextCase cases[] = {
      {"empty lines", "[S]\r\nE=1\r\n\r\n\r\n\r\n\r\n[T]\r\n", "[S]\nE=v\n\n[T]\n"},
      {"ten passes", "[S]\nE=1\n" + thousand + "[T]", "[S]\nE=v\n" + thousand.substr(983) + "[T]"},
      {"CR only", "[T]\r[S]\rE=1\rF=2", "[T]\n[S]\nE=v\nF=2"},
      {"a full growth step", "[S]\nE=1\n" + comment, "[S]\nE=v\n" + comment},
      {"shorter than before", "[S]\nE=a much longer value\n", "[S]\nE=v\n"}};
  for (const TextCase& c : cases) {
    Open(c.before);
    Set();
    EXPECT_EQ(file_.Close(true), kConfigOk);
    EXPECT_EQ(Content(), c.after) << c.name;
  }
}

TEST_F(ConfigSaving, LeavesAnUnchangedOrReadOnlyFileAlone) {
  const std::string content = "\xEF\xBB\xBF[S]\r\n\r\n\r\n\r\n\r\n";
  Open(content);
  EXPECT_TRUE(file_.IsOpen());
  file_.Open(false, file_.GetPath(), false);
  EXPECT_FALSE(file_.IsOpen());
  Set();
  EXPECT_EQ(ValueIn(file_, "S", "E"), "v");
  EXPECT_EQ(file_.Close(true), kConfigOk);
  EXPECT_EQ(Content(), content);
  EXPECT_EQ(trace_.Lines(), (std::vector<std::string>{"Config - Open '" + path_ + "' (w)",
                                                      "Config - Open '" + path_ + "' (r)"}));
}

TEST_F(ConfigSaving, MigratedTextWinsOverAChangedFile) {
  folder_.Write("a.conf", "[Soft Tokens]\nE=1\n");
  const utimbuf past{1000, 1000};
  ASSERT_EQ(::utime(path_.c_str(), &past), 0);
  file_.Open(true, path_.c_str(), true);
  folder_.Write("a.conf", "[Other]\nlonger than before, so that its end must go\n");
  EXPECT_EQ(file_.Close(false), kConfigOk);
  EXPECT_EQ(Content(), "[SoftToken]\nE=1\n");
  EXPECT_EQ(ValueIn(file_, "SoftToken", "E"), "1");
  EXPECT_TRUE(trace_.Has("Config - WARNING: File '" + path_ + "' modified"));
}

TEST_F(ConfigSaving, MissingFileIsMadeForWriting) {
  EXPECT_EQ(file_.Open(false, path_.c_str(), true), kConfigOk);
  EXPECT_EQ(ValueIn(file_, "S", "E"), "(no section)");
  EXPECT_EQ(file_.Open(true, path_.c_str(), true), kConfigOk);
  Set();
  EXPECT_EQ(file_.Close(true), kConfigOk);
  EXPECT_EQ(Content(), "\n[S]\nE=v\n");
  // The writable open succeeds, and as no time was taken there is nothing to warn of.
  EXPECT_EQ(trace_.Lines(), std::vector<std::string>{"Config - Failed to open"});
}

TEST_F(ConfigSaving, RefusesWhatIsNoConfiguration) {
  const std::string pipe = folder_.Path("pipe.conf");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  const std::string large = folder_.Write("large.conf", "[S]\n");
  ASSERT_EQ(::truncate(large.c_str(), static_cast<off_t>(kMaximumConfigSize) + 1), 0);
  for (const std::string& path : {pipe, large, folder_.Path(), std::string()}) {
    EXPECT_EQ(file_.Open(true, path.c_str(), true), kConfigOk);
    EXPECT_FALSE(file_.IsOpen()) << path;
    EXPECT_EQ(TextIn(file_), "") << path;
  }
  EXPECT_EQ(trace_.Count("Config - Failed to open"), 4U);
}

TEST_F(ConfigSaving, EncodedFilesAreNeverWritten) {
  const std::string path = folder_.Write("a.EDB", "[S]\nE=1\n");
  file_.Open(true, path.c_str(), true);
  EXPECT_EQ(TextIn(file_), "");
  Set();
  EXPECT_EQ(file_.Close(true), kConfigFailed);
  EXPECT_EQ(folder_.Read("a.EDB"), "[S]\nE=1\n");
}

TEST_F(ConfigSaving, FullDiskLosesNothing) {
  const std::string content = "[S]\nE=" + std::string(5000, 'x') + "\n";
  Open(content);
  file_.SetValue("A", "B", std::string(5000, 'y').c_str(), false);
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  const auto oldAction = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit small{6000, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  EXPECT_EQ(file_.Close(true), kConfigFailed);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
  std::signal(SIGXFSZ, oldAction);
  EXPECT_EQ(Content(), content);
}

}  // namespace
}  // namespace qixx::testing
