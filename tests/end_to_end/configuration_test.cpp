// Where the service takes its commands from: files, environment, conditions, command line.
#include <algorithm>

#include "tests/end_to_end/service_test.h"

namespace qixx::testing {
namespace {

namespace fs = std::filesystem;

class Configuration : public ServiceTest {
 protected:
  void SetUp() override { desktop.InsertCard(1); }
  void Start() {
    Configure("-sync", {Echo("system", "said")});
    desktop.Start();
  }
};

TEST_F(Configuration, ConditionsChooseTheCommandForThisProgram) {
  desktop.Configure(
      "[Condition]\n1={here} qixxwatch\n2={there} other\n"
      "[Command]\nWatch=-sync config Watch\n[Watch Insert]\n1=" +
      Echo("other", "named") + "|other||" + Echo("mine", "named") + "|gone;qixxwatch,*||" +
      Echo("rest", "named") + "\n2=" + Echo("no", "braced") + "|{there}||" + Echo("yes", "braced") +
      "|{here}\n3=" + Echo("default", "last") + "||unused|*\n");
  desktop.Start();
  EXPECT_TRUE(desktop.Holds("named", "mine\n"));
  EXPECT_TRUE(desktop.Holds("braced", "yes\n"));
  EXPECT_TRUE(desktop.Holds("last", "default\n"));
  EXPECT_TRUE(desktop.Traced("Config - Active named conditions: {here}"));
}

TEST_F(Configuration, EnvironmentOverridesAnyValue) {
  desktop.SetVariable("qix:Watch Insert:1", Echo("environment", "said"));
  desktop.SetVariable("qix:Watch Insert:2", "parallel kill x");
  Start();
  EXPECT_TRUE(desktop.Holds("said", "environment\n"));
  EXPECT_TRUE(desktop.Traced("Watch - Thread execute command ... done"));
}

TEST_F(Configuration, UsersFileDecidesTheTraceAndTheSystemsTheCommands) {
  desktop.Home().Write(".qix/qix.conf", "[Trace]\nwatch=" + desktop.Path("users.log") +
                                            "\n[Watch Insert]\n1=" + Echo("user", "said") + "\n");
  Start();
  EXPECT_TRUE(desktop.Holds("said", "system\n"));
  Stop();
  EXPECT_FALSE(Exists("trace.log"));
  EXPECT_NE(desktop.Home().Read("users.log").find("Watch - Stopped"), std::string::npos);
}

TEST_F(Configuration, PerUserInstallationUsesOneFileInTheHome) {
  Configure("-sync", {Echo("home", "said")});
  fs::create_directories(desktop.Path(".qix/lib"));
  fs::rename(desktop.Path("system.conf"), desktop.Path(".qix/qix.conf"));
  desktop.SetVariable("qixconfigglobal", "");
  desktop.Start();
  EXPECT_TRUE(desktop.Holds("said", "home\n"));
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

struct CommandLine {
  const char* name;
  std::vector<std::string> arguments;
  const char* running;  // the section that runs, null when nothing does

  friend void PrintTo(const CommandLine& line, std::ostream* out) { *out << line.name; }
};
const CommandLine kCommandLines[] = {
    {"NoArguments", {}, "Watch"},
    {"AnotherSection", {"-sync", "config", "Extra"}, "Extra"},
    {"ChildWatcher", {"X", "config", "Extra"}, "Extra"},
    {"ChildWatcherWithoutCommand", {"X"}, nullptr},
    {"Question", {"?"}, nullptr},
    {"OptionsOfAServiceInstaller", {"-install", "config", "Extra"}, "Watch"},
    {"WordInQuotesNamesTheSection", {"-s", "\"watch Extra\"", "config"}, "Extra"},
};
class CommandLines : public ServiceTest, public ::testing::WithParamInterface<CommandLine> {};

TEST_P(CommandLines, OverlayTheConfiguration) {
  desktop.Configure(
      "[Command]\nWatch=-sync config Watch\n[Watch Insert]\n1=kill x\n"
      "[Watch Extra Insert]\n1=kill x\n");
  desktop.Start(GetParam().arguments);
  if (GetParam().running != nullptr) {
    EXPECT_TRUE(desktop.Traced("Watch - Running '" + std::string(GetParam().running) + "'"));
  } else {
    EXPECT_EQ(desktop.Stop(0), 0);
    EXPECT_TRUE(desktop.TraceAfter("Watch - Running").empty());
  }
}

INSTANTIATE_TEST_SUITE_P(Configuration, CommandLines, ::testing::ValuesIn(kCommandLines),
                         [](const auto& row) { return std::string(row.param.name); });

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

TEST_F(Configuration, HelpAndVersionAnswerBeforeAnythingElse) {
  for (const char* option : {"--help", "--version"}) {
    Configure("", {"kill x"});
    desktop.Start({option});
    EXPECT_EQ(desktop.Stop(0), 0);
    EXPECT_NE(desktop.Home().Read("stdout.txt").find("qixxwatch"), std::string::npos);
    fs::remove(desktop.Path("stdout.txt"));
  }
  EXPECT_TRUE(desktop.Trace().empty());
}

}  // namespace
}  // namespace qixx::testing
