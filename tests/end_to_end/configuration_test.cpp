// Where the service takes its commands from: files, environment, conditions, command line.
#include <algorithm>

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
  EXPECT_NE(desktop.Home().Read("users.log").find("Watch - Stopped"), std::string::npos);
}

TEST_F(Configuration, FileBesideTheProgramComesBeforeTheSystems) {
  desktop.Configure(
      "[Command]\nWatch=-sync config Other\n[Watch Insert]\n1=" + Echo("beside", "said") +
      "\n[Watch Other Insert]\n1=" + Echo("system", "said") + "\n");
  desktop.Home().Write("bin/watch.conf", "[Command]\nWatch=-sync config Watch\n");
  fs::copy_file(QIXX_PROGRAM, desktop.Path("bin/watch.program"));
  desktop.Start({}, desktop.Path("bin/watch.program"));
  EXPECT_TRUE(desktop.Holds("said", "beside\n"));
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
  desktop.Configure(
      "[Command]\nWatch=-sync config Watch\n[Watch Insert]\n1=kill x\n[Watch Extra Insert]\n1=kill "
      "x\n");
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
                                      "\n[Command]\nWatch=-sync config Watch\n[Watch Insert]\n1=" +
                                          Echo("in", "said") + "\n");
  desktop.Start();
  EXPECT_TRUE(desktop.Holds("said", "in\n"));
  Stop();
  Lines files;
  for (const auto& file : fs::directory_iterator(desktop.Home().Path())) {
    files.push_back(file.path().filename().string());
  }
  std::sort(files.begin(), files.end());
  EXPECT_EQ(files, (Lines{".qix", "readers", "said", "stderr.txt", "stdout.txt", "system.conf"}));
  EXPECT_EQ(desktop.Home().Read("stdout.txt") + desktop.Home().Read("stderr.txt"), "");
}

TEST_F(Configuration, WordsForPeopleAnswerBeforeAnythingElse) {
  const std::tuple<Lines, int, const char*, const char*> rows[] = {
      {{"--help"}, 0, "Usage: qixxwatch", ""},
      {{"-h", "config"}, 0, "Usage: qixxwatch", ""},
      {{"--version"}, 0, "qixxwatch ", ""},
      {{"-V"}, 0, "qixxwatch ", ""},
      {{"--hilfe\x1b[2J"},
       2,
       "",
       "qixxwatch: unknown option '--hilfe?[2J'; see qixxwatch --help\n"},
      {{"--", "x"}, 2, "", "qixxwatch: unknown option '--'; see qixxwatch --help\n"},
  };
  Configure("", {"kill x"});
  for (const auto& [words, code, output, errors] : rows) {
    SCOPED_TRACE(::testing::PrintToString(words));
    desktop.Start(words);
    EXPECT_EQ(desktop.Stop(0), code);
    EXPECT_TRUE(desktop.Home().Read("stdout.txt").starts_with(output));
    EXPECT_EQ(desktop.Home().Read("stderr.txt"), errors);
    for (const char* file : {"stdout.txt", "stderr.txt"}) fs::remove(desktop.Path(file));
  }
  EXPECT_TRUE(desktop.TraceAfter("").empty());
}

TEST_F(Configuration, CheckTellsByItsExitCodeAndLeavesNoTrace) {
  const std::tuple<Lines, std::string, int> rows[] = {
      {{"/bin/true"}, "Watcher 'Watch' (", 0},
      {{"true"}, ":8: program 'true' has no path, and none is searched; ", 1},
  };
  for (const auto& [insert, told, code] : rows) {
    Configure("-sync", insert, {Echo("out", "said")});
    desktop.Start({"--check"});
    EXPECT_EQ(desktop.Stop(0), code);
    EXPECT_NE(desktop.Home().Read("stdout.txt").find(told), std::string::npos);
    fs::remove(desktop.Path("stdout.txt"));
  }
  EXPECT_EQ(desktop.Home().Read("stderr.txt"), "");
  desktop.Start({"--check", desktop.Path("none"), desktop.Path("system.conf")});
  EXPECT_EQ(desktop.Stop(0), 2);
  EXPECT_NE(desktop.Home().Read("stdout.txt").find("Watcher 'Watch'"), std::string::npos);
  EXPECT_EQ(desktop.Home().Read("stderr.txt"),
            "qixxwatch: " + desktop.Path("none") + " cannot be read: No such file or directory\n");
  for (const char* made : {"trace.log", ".qix", "said"}) EXPECT_FALSE(Exists(made)) << made;
}

}  // namespace
}  // namespace qixx::testing
