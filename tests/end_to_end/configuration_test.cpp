// Where the service takes its commands from: files, environment, conditions, command line.
#include "tests/end_to_end/service_test.h"

namespace qixx::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

class Configuration : public ServiceTest {
 protected:
  void SetUp() override { InsertCard(1); }
};

TEST_F(Configuration, UsersFileDecidesTheTraceAndTheSystemsTheCommands) {
  Home().Write(".qix/qix.conf", "[Trace]\nwatch=" + Path("users.log") +
                                    "\n[Watch Insert]\n1=" + Echo("user") + "\n");
  ConfigureWatch("-sync", {Echo("system")});
  Start();
  EXPECT_TRUE(Ran("system"));
  Stop();
  EXPECT_FALSE(Exists("trace.log") || Exists("user"));
  EXPECT_THAT(Read("users.log"), HasSubstr("Watch - Stopped"));
}

TEST_F(Configuration, FileBesideTheProgramComesBeforeTheSystems) {
  ConfigureWatchers("-sync config Other",
                    {{"Insert", {Echo("beside")}}, {"Other Insert", {Echo("system")}}});
  const std::string file = Home().Write("bin/watch.conf", "[Command]\nWatch=-sync config Watch\n");
  fs::copy_file(QIXX_PROGRAM, Path("bin/watch.program"));
  Start({}, Path("bin/watch.program"));
  EXPECT_TRUE(Ran("beside"));
  Stop();
  EXPECT_FALSE(Exists("system"));
  if (::geteuid() != 0) return;
  ASSERT_EQ(::chown(file.c_str(), 1234, 0), 0);
  Start({}, Path("bin/watch.program"));
  EXPECT_TRUE(Ran("system"));
}

TEST_F(Configuration, CommandLineOverlaysIt) {
  ConfigureWatchers("-sync config Watch", {{"Insert", {"kill x"}}, {"Extra Insert", {"kill x"}}});
  const std::pair<Lines, std::string> rows[] = {
      {{"X", "config", "Extra"}, "Extra"},
      {{"-install", "config", "Extra"}, "Watch"},
      {{"-s", "\"watch Extra\"", "config"}, "Extra"},
  };
  for (const auto& [words, section] : rows) {
    fs::remove(Path("trace.log"));
    Start(words);
    Await("Watch - Running '" + section + "'");
    Stop();
  }
}

TEST_F(Configuration, WordsForPeopleAnswerBeforeAnythingElse) {
  const std::string unknown = "qixxwatch: unknown option '--hilfe?[2J'; see qixxwatch --help\n";
  const std::tuple<Lines, const char*, std::string> rows[] = {
      {{"-h", "config"}, "Usage: qixxwatch", ""},
      {{"--version"}, "qixxwatch ", ""},
      {{"--hilfe\x1b[2J"}, "", unknown}};
  ConfigureWatch("", {"kill x"});
  for (const auto& [words, output, errors] : rows) {
    EXPECT_EQ(RunToItsEnd(words), errors.empty() ? 0 : 2);
    EXPECT_TRUE(Read("stdout.txt").starts_with(output));
    EXPECT_EQ(Errors(), errors);
    EXPECT_FALSE(Exists("trace.log"));
  }
}

TEST_F(Configuration, CheckTellsByItsExitCodeAndLeavesNoTrace) {
  const std::string none = Path("none");
  ConfigureWatch("-sync", {"true"}, {Echo("out")});
  EXPECT_EQ(RunToItsEnd({"--check"}), 1);
  EXPECT_THAT(Read("stdout.txt"), HasSubstr(":8: program 'true' has no path, and none is "));
  EXPECT_EQ(Errors(), "");
  EXPECT_EQ(RunToItsEnd({"--check", none, Path("system.conf")}), 2);
  EXPECT_EQ(Errors(), "qixxwatch: " + none + " cannot be read: No such file or directory\n");
  for (const char* made : {"trace.log", ".qix", "out"}) EXPECT_FALSE(Exists(made)) << made;
}

}  // namespace
}  // namespace qixx::testing
