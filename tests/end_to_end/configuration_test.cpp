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

TEST_F(Configuration, EnvironmentOverridesValuesWhoseConditionsAskForThisProgram) {
  SetVariable("qix:Watch Insert:1", Echo("environment"));
  SetVariable("qix:Watch Insert:2", "parallel kill x");
  ConfigureWatch("-sync", {"/bin/false", "/bin/false",
                           Echo("no") + "|other||" + Echo("yes") + "|gone;qixxwatch,*"});
  Start();
  EXPECT_TRUE(Ran("environment"));
  EXPECT_TRUE(Ran("yes"));
  Await("Watch - Thread execute command ... done");
}

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

TEST_F(Configuration, MissingOneBesideTheProgramShowsInTheTraceWhereOthersMayMakeIt) {
  fs::create_directory(Path("open"));
  fs::permissions(Path("open"), fs::perms::all);
  fs::copy_file(QIXX_PROGRAM, Path("open/watch.program"));
  ConfigureWatch("-sync", {"kill x"});
  Start({}, Path("open/watch.program"));
  Await("Watch - Event");
  const Lines opened = TraceAfter("Config - ");
  ASSERT_GE(opened.size(), 2U);
  EXPECT_THAT(
      Lines(opened.begin(), opened.begin() + 2),
      ::testing::ElementsAre("Open '" + Path("open/watch.conf") + "' (r)", "Failed to open"));
}

TEST_F(Configuration, CommandLineOverlaysIt) {
  ConfigureWatchers("-sync config Watch", {{"Insert", {"kill x"}}, {"Extra Insert", {"kill x"}}});
  const std::pair<Lines, std::string> rows[] = {
      {{}, "Watch"},
      {{"-sync", "config", "Extra"}, "Extra"},
      {{"X", "config", "Extra"}, "Extra"},
      {{"-install", "config", "Extra"}, "Watch"},
      {{"-s", "\"watch Extra\"", "config"}, "Extra"},
  };
  for (const auto& [words, section] : rows) {
    fs::remove(Path("trace.log"));
    Start(words);
    Await("Watch - Running '" + section + "'");
    Stop();
    EXPECT_EQ(TraceAfter("Watch - Running").size(), 1U) << section;
  }
  for (const char* const nothing : {"X", "?"}) {
    EXPECT_EQ(RunToItsEnd({nothing}), 0);
    EXPECT_EQ(TraceAfter("Watch - Running").size(), 0U) << nothing;
  }
}

TEST_F(Configuration, WithoutTraceNoFileAppears) {
  ConfigureWatch("-sync", {Echo("in")});
  const std::string text = Read("system.conf");
  Home().Write("system.conf", text.substr(text.find("[Install]")));
  Start();
  EXPECT_TRUE(Ran("in"));
  Stop();
  Lines files;
  for (const fs::path& file : fs::directory_iterator(Path(""))) files.push_back(file.filename());
  EXPECT_THAT(files, ::testing::UnorderedElementsAre(".qix", "readers", "in", "stderr.txt",
                                                     "stdout.txt", "system.conf"));
  EXPECT_EQ(Read("stdout.txt") + Errors(), "");
}

TEST_F(Configuration, WordsForPeopleAnswerBeforeAnythingElse) {
  const std::string unknown = "qixxwatch: unknown option '";
  const std::tuple<Lines, const char*, std::string> rows[] = {
      {{"--help"}, "Usage: qixxwatch", ""},
      {{"-h", "config"}, "Usage: qixxwatch", ""},
      {{"--version"}, "qixxwatch ", ""},
      {{"-V"}, "qixxwatch ", ""},
      {{"--hilfe\x1b[2J"}, "", unknown + "--hilfe?[2J'; see qixxwatch --help\n"},
      {{"--", "x"}, "", unknown + "--'; see qixxwatch --help\n"},
  };
  ConfigureWatch("", {"kill x"});
  for (const auto& [words, output, errors] : rows) {
    SCOPED_TRACE(::testing::PrintToString(words));
    EXPECT_EQ(RunToItsEnd(words), errors.empty() ? 0 : 2);
    EXPECT_TRUE(Read("stdout.txt").starts_with(output));
    EXPECT_EQ(Errors(), errors);
    EXPECT_FALSE(Exists("trace.log"));
  }
}

TEST_F(Configuration, CheckTellsByItsExitCodeAndLeavesNoTrace) {
  const std::string none = Path("none");
  const std::tuple<const char*, Lines, int, const char*, std::string> rows[] = {
      {"true", {}, 1, ":8: program 'true' has no path, and none is searched; ", ""},
      {"/bin/true", {}, 0, "Watcher 'Watch' (", ""},
      {"/bin/true",
       {none, Path("system.conf")},
       2,
       "Watcher 'Watch'",
       "qixxwatch: " + none + " cannot be read: No such file or directory\n"},
  };
  for (auto [command, words, code, told, errors] : rows) {
    ConfigureWatch("-sync", {command}, {Echo("out")});
    words.insert(words.begin(), "--check");
    EXPECT_EQ(RunToItsEnd(words), code);
    EXPECT_THAT(Read("stdout.txt"), HasSubstr(told));
    EXPECT_EQ(Errors(), errors);
  }
  for (const char* made : {"trace.log", ".qix", "out"}) EXPECT_FALSE(Exists(made)) << made;
}

}  // namespace
}  // namespace qixx::testing
