#include "watch/watch_main.h"

#include <gtest/gtest.h>

#include "tests/support/environment.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"

namespace qixx::testing {
namespace {

class WatchMainTest : public ::testing::Test {
 protected:
  TemporaryFolder folder;
  ScopedVariable home{"HOME", folder.Path().c_str()};
  ScopedVariable path{
      "qixconfigglobal",
      folder.Write("system.conf", "[Command]\nWatch=-simulate \"x\" -pin 1234\n").c_str()};
  // Deep enough that the test never starts itself.
  ScopedVariable depth{"qixwatchdepth", "8"};
  TraceCapture trace;
};

TEST_F(WatchMainTest, ArgumentsAreJoinedWithBlanksAndCut) {
  const std::string much(600, 'x');
  const char* const arguments[] = {"program", "a b", "", much.c_str(), much.c_str(), nullptr};
  char line[1024] = "old";
  JoinArguments(1, arguments, line);
  EXPECT_STREQ(line, "");
  JoinArguments(5, arguments, line);
  EXPECT_EQ(std::string(line), ("a b  " + much + " " + much).substr(0, 1023));
}

TEST_F(WatchMainTest, SourcesOfTheCommandDependOnTheLine) {
  static constexpr const char* kMasked = "-simulate \"x\" -pin ****";
  const struct {
    const char* line;  // null for none
    const char* start;
    const char* config;
    const char* next;
  } rows[] = {
      {nullptr, "", kMasked, "Configuration: 'Watch Remove'"},
      {"x config Foo -pin  42 ", "config Foo -pin  ** ", "", "Starting"},
      {"X ", "", "", "Failed to parse config"},
      {"?", "?", kMasked, "Failed to parse config"},
      {"-uninstallx", "-uninstallx", "", "Starting"},
      {"servicemain ", "servicemain ", "", "Starting"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.start);
    trace.Clear();
    EXPECT_EQ(WatchMain(0, 0, row.line), 0);
    EXPECT_TRUE(trace.Has("Watch - Command start:  '" + std::string(row.start) + "'"));
    EXPECT_TRUE(trace.Has("Watch - Command config: '" + std::string(row.config) + "'"));
    EXPECT_TRUE(trace.Has("Watch - " + std::string(row.next)));
  }
}

TEST_F(WatchMainTest, ConfigNamesTheSectionAndExtraWatchersStopAtTheirDepth) {
  WatchMain(0, 0, "X Config Foo |One|| ");
  EXPECT_TRUE(trace.Has("Watch - Configuration: 'Watch Foo Insert'"));
  EXPECT_TRUE(trace.Has("Watch - Extra watchers end at depth 8"));
  EXPECT_EQ(trace.Count("Watch - Extra 'One'"), 0U);
}

}  // namespace
}  // namespace qixx::testing
