#include "watch/watch_main.h"

#include <gtest/gtest.h>

#include "tests/support/environment.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"

namespace qixx::testing {
namespace {

TEST(WatchMain, ArgumentsAreJoinedWithBlanksAndCut) {
  const std::string much(600, 'x');
  const char* const arguments[] = {"program", "a b", "", much.c_str(), much.c_str(), nullptr};
  char line[1024] = "old";
  JoinArguments(1, arguments, line);
  EXPECT_STREQ(line, "");
  JoinArguments(5, arguments, line);
  EXPECT_EQ(std::string(line), ("a b  " + much + " " + much).substr(0, 1023));
}

TEST(WatchMain, LineDecidesWhatIsReadAndRun) {
  const TemporaryFolder folder;
  const std::string file =
      folder.Write("system.conf", "[Command]\nWatch=-simulate \"x\" -pin 1234\n");
  const ScopedVariable path("qixconfigglobal", file.c_str());
  const ScopedVariable home("HOME", folder.Path().c_str());
  // So deep that the test does not start itself; were it to, the started one would run no test.
  const ScopedVariable depth("qixwatchdepth", "8");
  const ScopedVariable filter("GTEST_FILTER", "none");
  const struct {
    const char* line;  // null for none
    const char* start;
    const char* config;
    const char* next;
  } rows[] = {
      {nullptr, "", "-simulate \"x\" -pin ****", "Configuration: 'Watch Remove'"},
      {"x Config Foo -pin  42", "Config Foo -pin  **", "", "Starting"},
      {"-uninstallx", "-uninstallx", "", "Starting"},
      {"servicemain ", "servicemain ", "", "Starting"},
      {"X config Foo |One||", "config Foo |One||", "", "Extra watchers end at depth 8"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.start);
    const TraceCapture trace;
    EXPECT_EQ(WatchMain(0, 0, row.line), 0);
    EXPECT_TRUE(trace.Has("Watch - Command start:  '" + std::string(row.start) + "'"));
    EXPECT_TRUE(trace.Has("Watch - Command config: '" + std::string(row.config) + "'"));
    EXPECT_TRUE(trace.Has("Watch - " + std::string(row.next)));
  }
}

}  // namespace
}  // namespace qixx::testing
