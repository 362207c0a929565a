// Where the service takes its commands from: files, environment, conditions, command line.
#include "tests/end_to_end/service_test.h"

namespace qixx::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::StartsWith;

using Configuration = ServiceTest;

TEST_F(Configuration, UsersFileDecidesTheTraceAndTheOneBesideTheProgramComesBeforeTheSystems) {
  InsertCard(1);
  Home().Write(".qix/qix.conf", "[Trace]\nwatch=" + Path("users.log") +
                                    "\n[Watch Insert]\n1=" + Echo("user") + "\n");
  ConfigureWatchers("-sync config Other",
                    {{"Insert", {Echo("beside")}}, {"Other Insert", {Echo("system")}}});
  const std::string file = Home().Write("bin/watch.conf", "[Command]\nWatch=-sync config Watch\n");
  fs::copy_file(QIXX_PROGRAM, Path("bin/watch.program"));
  Start({}, Path("bin/watch.program"));
  EXPECT_TRUE(Ran("beside"));
  Stop();
  EXPECT_FALSE(Exists("trace.log") || Exists("user") || Exists("system"));
  EXPECT_THAT(Read("users.log"), HasSubstr("Watch - Stopped"));
  if (::geteuid() != 0) return;
  ASSERT_EQ(::chown(file.c_str(), 1234, 0), 0);
  Start({}, Path("bin/watch.program"));
  EXPECT_TRUE(Ran("system"));
}

TEST_F(Configuration, CommandLineOverlaysIt) {
  ConfigureWatchers("-sync config Watch", {{"Insert", {"kill x"}}, {"Extra Insert", {"kill x"}}});
  Start({"-s", "\"watch Extra\"", "config"});
  Await("Watch - Running 'Extra'");
}

TEST_F(Configuration, WordsForPeopleAnswerBeforeAnythingElse) {
  ConfigureWatch("-sync", {"true"}, {Echo("out")});
  EXPECT_EQ(RunToItsEnd({"-h", "config"}), 0);
  EXPECT_THAT(Read("stdout.txt"), StartsWith("Usage: qixxwatch"));
  EXPECT_EQ(RunToItsEnd({"--version"}), 0);
  EXPECT_THAT(Read("stdout.txt"), StartsWith("qixxwatch "));
  EXPECT_EQ(RunToItsEnd({"--hilfe\x1b[2J"}), 2);
  EXPECT_EQ(Errors(), "qixxwatch: unknown option '--hilfe?[2J'; see qixxwatch --help\n");
  EXPECT_EQ(RunToItsEnd({"--check"}), 1);
  EXPECT_THAT(Read("stdout.txt"), HasSubstr(":8: program 'true' has no path, and none is "));
  EXPECT_EQ(RunToItsEnd({"--check", "/none", Path("system.conf")}), 2);
  EXPECT_EQ(Errors(), "qixxwatch: /none cannot be read: No such file or directory\n");
  for (const char* made : {"trace.log", ".qix", "out"}) EXPECT_FALSE(Exists(made)) << made;
}

}  // namespace
}  // namespace qixx::testing
