// Where the service takes its commands from: files, environment, conditions, command line.
#include <set>

#include "tests/end_to_end/service_test.h"

namespace qixx::testing {
namespace {

namespace fs = std::filesystem;

class Configuration : public ServiceTest {
 protected:
  void SetUp() override { desktop.InsertCard(1); }
};

TEST_F(Configuration, EnvironmentOverridesValuesWhoseConditionsAskForThisProgram) {
  desktop.SetVariable("qix:Watch Insert:1", Echo("environment", "said"));
  desktop.SetVariable("qix:Watch Insert:2", "parallel kill x");
  Configure("-sync", {"/bin/false", "/bin/false",
                      Echo("no", "file") + "|other||" + Echo("yes", "file") + "|gone;qixxwatch,*"});
  desktop.Start();
  EXPECT_TRUE(desktop.Holds("said", "environment\n"));
  EXPECT_TRUE(desktop.Holds("file", "yes\n"));
  EXPECT_TRUE(desktop.Traced("Watch - Thread execute command ... done"));
}

TEST_F(Configuration, UsersFileDecidesTheTraceAndTheSystemsTheCommands) {
  desktop.Home().Write(".qix/qix.conf", "[Trace]\nwatch=" + desktop.Path("users.log") +
                                            "\n[Watch Insert]\n1=" + Echo("user", "said") + "\n");
  Configure("-sync", {Echo("system", "said")});
  desktop.Start();
  EXPECT_TRUE(desktop.Holds("said", "system\n"));
  Stop();
  EXPECT_FALSE(Exists("trace.log"));
  EXPECT_NE(Read("users.log").find("Watch - Stopped"), std::string::npos);
}

TEST_F(Configuration, FileBesideTheProgramComesBeforeTheSystems) {
  desktop.Configure("[Command]\nWatch=-sync config Other\n" +
                    Section("Watch Insert", {Echo("beside", "said")}) +
                    Section("Watch Other Insert", {Echo("system", "said")}));
  desktop.Home().Write("bin/watch.conf", "[Command]\nWatch=-sync config Watch\n");
  fs::copy_file(QIXX_PROGRAM, desktop.Path("bin/watch.program"));
  desktop.Start({}, desktop.Path("bin/watch.program"));
  EXPECT_TRUE(desktop.Holds("said", "beside\n"));
  if (::geteuid() != 0) return;
  Stop();
  fs::remove(desktop.Path("said"));
  ASSERT_EQ(::chown(desktop.Path("bin/watch.conf").c_str(), 1234, 0), 0);
  desktop.Start({}, desktop.Path("bin/watch.program"));
  EXPECT_TRUE(desktop.Holds("said", "system\n"));
}

TEST_F(Configuration, CommandLineOverlaysIt) {
  // The words, and the section that runs, empty when nothing does.
  const std::pair<Lines, std::string> rows[] = {
      {{}, "Watch"},
      {{"-sync", "config", "Extra"}, "Extra"},
      {{"X", "config", "Extra"}, "Extra"},
      {{"X"}, ""},
      {{"?"}, ""},
      {{"-install", "config", "Extra"}, "Watch"},
      {{"-s", "\"watch Extra\"", "config"}, "Extra"},
  };
  desktop.Configure("[Command]\nWatch=-sync config Watch\n" + Section("Watch Insert", {"kill x"}) +
                    Section("Watch Extra Insert", {"kill x"}));
  for (const auto& [words, section] : rows) {
    SCOPED_TRACE(::testing::PrintToString(words));
    fs::remove(desktop.Path("trace.log"));
    desktop.Start(words);
    EXPECT_TRUE(section.empty() || desktop.Traced("Watch - Running '" + section + "'"));
    EXPECT_EQ(desktop.Stop(section.empty() ? 0 : SIGTERM), 0);
    EXPECT_EQ(desktop.TraceAfter("Watch - Running").size(), section.empty() ? 0U : 1U);
  }
}

TEST_F(Configuration, WithoutTraceNoFileAppears) {
  desktop.Home().Write("system.conf", "[Install]\nDirectory=" QIXX_SOFTCARD_FOLDER
                                      "\n[Command]\nWatch=-sync config Watch\n" +
                                          Section("Watch Insert", {Echo("in", "said")}));
  desktop.Start();
  EXPECT_TRUE(desktop.Holds("said", "in\n"));
  Stop();
  std::set<std::string> files;
  for (const auto& file : fs::directory_iterator(desktop.Home().Path())) {
    files.insert(file.path().filename());
  }
  EXPECT_EQ(files, (std::set<std::string>{".qix", "readers", "said", "stderr.txt", "stdout.txt",
                                          "system.conf"}));
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
  Configure("", {"kill x"});
  for (const auto& [words, output, errors] : rows) {
    SCOPED_TRACE(::testing::PrintToString(words));
    EXPECT_EQ(RunToItsEnd(words), errors.empty() ? 0 : 2);
    EXPECT_TRUE(Read("stdout.txt").starts_with(output));
    EXPECT_EQ(Errors(), errors);
    EXPECT_FALSE(Exists("trace.log"));
  }
}

TEST_F(Configuration, CheckTellsByItsExitCodeAndLeavesNoTrace) {
  const auto check = [this](const Lines& words, const std::string& told) {
    const int code = RunToItsEnd(words);
    EXPECT_NE(Read("stdout.txt").find(told), std::string::npos);
    return code;
  };
  Configure("-sync", {"true"}, {Echo("out", "said")});
  EXPECT_EQ(check({"--check"}, ":8: program 'true' has no path, and none is searched; "), 1);
  Configure("-sync", {"/bin/true"}, {Echo("out", "said")});
  EXPECT_EQ(check({"--check"}, "Watcher 'Watch' ("), 0);
  EXPECT_EQ(Errors(), "");
  const std::string none = desktop.Path("none");
  EXPECT_EQ(check({"--check", none, desktop.Path("system.conf")}, "Watcher 'Watch'"), 2);
  EXPECT_EQ(Errors(), "qixxwatch: " + none + " cannot be read: No such file or directory\n");
  for (const char* made : {"trace.log", ".qix", "said"}) EXPECT_FALSE(Exists(made)) << made;
}

}  // namespace
}  // namespace qixx::testing
