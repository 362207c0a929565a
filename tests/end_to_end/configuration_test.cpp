// Where the service takes its commands from: files, environment, conditions, command line.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/end_to_end/desktop.h"

namespace qixx::testing {
namespace {

TEST(Configuration, ConditionsChooseTheCommandForThisProgram) {
  Desktop desktop;
  desktop.Configure(
      "[Condition]\n1={here} qixxwatch\n2={there} other\n"
      "[Command]\nWatch=-sync config Watch\n[Watch Insert]\n1=" +
      desktop.Echo("other", "named.txt") + "|other||" + desktop.Echo("mine", "named.txt") +
      "|gone;qixxwatch,*||" + desktop.Echo("rest", "named.txt") +
      "\n2=" + desktop.Echo("no", "braced.txt") + "|{there}||" + desktop.Echo("yes", "braced.txt") +
      "|{here}\n3=" + desktop.Echo("default", "last.txt") + "||unused|*\n");
  desktop.InsertCard(1);
  desktop.Start();
  EXPECT_TRUE(desktop.Holds("named.txt", "mine\n")) << desktop.Report();
  EXPECT_TRUE(desktop.Holds("braced.txt", "yes\n")) << desktop.Report();
  EXPECT_TRUE(desktop.Holds("last.txt", "default\n")) << desktop.Report();
  EXPECT_EQ(desktop.Stop(), 0);
  EXPECT_GE(desktop.TraceCount("Config - Active named conditions: {here}"), 1U);
}

TEST(Configuration, EnvironmentOverridesAnyValue) {
  Desktop desktop;
  desktop.Configure("[Command]\nWatch=-sync config Watch\n[Watch Insert]\n1=" +
                    desktop.Echo("file", "said.txt") + "\n");
  desktop.SetVariable("qix:Watch Insert:1", desktop.Echo("environment", "said.txt"));
  desktop.SetVariable("qix:Watch Insert:2", "parallel kill x");
  desktop.InsertCard(1);
  desktop.Start();
  EXPECT_TRUE(desktop.Holds("said.txt", "environment\n")) << desktop.Report();
  EXPECT_TRUE(desktop.Traced("Watch - Thread execute command ... done")) << desktop.Report();
  EXPECT_EQ(desktop.Stop(), 0);
}

TEST(Configuration, UsersFileDecidesTheTraceAndTheSystemsTheCommands) {
  Desktop desktop;
  desktop.Configure("[Command]\nWatch=-sync config Watch\n[Watch Insert]\n1=" +
                    desktop.Echo("system", "said.txt") + "\n");
  desktop.Home().Write(".qix/qix.conf",
                       "[Trace]\nwatch=" + desktop.Path("users.log") +
                           "\n[Watch Insert]\n1=" + desktop.Echo("user", "said.txt") + "\n");
  desktop.InsertCard(1);
  desktop.Start();
  EXPECT_TRUE(desktop.Holds("said.txt", "system\n")) << desktop.Report();
  EXPECT_EQ(desktop.Stop(), 0);
  EXPECT_FALSE(std::filesystem::exists(desktop.Path("trace.log")));
  EXPECT_NE(desktop.Home().Read("users.log").find("Watch - Stopped"), std::string::npos);
}

TEST(Configuration, PerUserInstallationUsesOneFileInTheHome) {
  Desktop desktop;
  desktop.Configure("");
  std::filesystem::create_directories(desktop.Path(".qix/lib"));
  desktop.SetVariable("qixconfigglobal", "");
  desktop.Home().Write(".qix/qix.conf", desktop.Home().Read("system.conf") +
                                            "[Command]\nWatch=-sync config Watch\n"
                                            "[Watch Insert]\n1=" +
                                            desktop.Echo("home", "said.txt") + "\n");
  desktop.InsertCard(1);
  desktop.Start();
  EXPECT_TRUE(desktop.Holds("said.txt", "home\n")) << desktop.Report();
  EXPECT_EQ(desktop.Stop(), 0);
}

TEST(Configuration, FileBesideTheProgramComesBeforeTheSystems) {
  Desktop desktop;
  desktop.Configure("[Command]\nWatch=-sync config Other\n[Watch Insert]\n1=" +
                    desktop.Echo("beside", "said.txt") +
                    "\n[Watch Other Insert]\n1=" + desktop.Echo("system", "said.txt") + "\n");
  const std::string program = desktop.Path("bin/watch.program");
  std::filesystem::create_directories(desktop.Path("bin"));
  std::filesystem::copy_file(QIXX_PROGRAM, program);
  desktop.Home().Write("bin/watch.conf", "[Command]\nWatch=-sync config Watch\n");
  desktop.InsertCard(1);
  desktop.Start({}, program);
  EXPECT_TRUE(desktop.Holds("said.txt", "beside\n")) << desktop.Report();
  EXPECT_EQ(desktop.Stop(), 0);
}

TEST(Configuration, CommandLineOverlaysTheConfiguration) {
  struct Row {
    const char* name;
    std::vector<std::string> arguments;
    const char* running;  // the section that runs, null when nothing does
  };
  const Row rows[] = {
      {"no arguments", {}, "Watch"},
      {"another section", {"-sync", "config", "Extra"}, "Extra"},
      {"a child watcher", {"X", "config", "Extra"}, "Extra"},
      {"a child watcher without command", {"X"}, nullptr},
      {"a question", {"?"}, nullptr},
      {"options that a service installer gives", {"-install", "config", "Extra"}, "Watch"},
      {"the word in quotes that names the section", {"-s", "\"watch Extra\"", "config"}, "Extra"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Desktop desktop;
    desktop.Configure(
        "[Command]\nWatch=-sync config Watch\n[Watch Insert]\n1=kill x\n"
        "[Watch Extra Insert]\n1=kill x\n");
    desktop.Start(row.arguments);
    if (row.running != nullptr) {
      EXPECT_TRUE(desktop.Traced("Watch - Running '" + std::string(row.running) + "'"))
          << desktop.Report();
      EXPECT_EQ(desktop.Stop(), 0);
    } else {
      EXPECT_EQ(desktop.Stop(0), 0);
      EXPECT_TRUE(desktop.TraceAfter("Watch - Running").empty()) << desktop.Report();
    }
  }
}

TEST(Configuration, WithoutTraceNoFileAppears) {
  Desktop desktop;
  desktop.Home().Write("system.conf", "[Install]\nDirectory=" QIXX_SOFTCARD_FOLDER
                                      "\n[Command]\nWatch=-sync config Watch\n[Watch Insert]\n1=" +
                                          desktop.Echo("in", "in.txt") + "\n");
  desktop.InsertCard(1);
  desktop.Start();
  EXPECT_TRUE(desktop.Holds("in.txt", "in\n")) << desktop.Report();
  EXPECT_EQ(desktop.Stop(), 0);
  std::vector<std::string> files;
  for (const auto& file : std::filesystem::directory_iterator(desktop.Home().Path())) {
    files.push_back(file.path().filename().string());
  }
  std::sort(files.begin(), files.end());
  EXPECT_EQ(files, (std::vector<std::string>{".qix", "in.txt", "readers", "stderr.txt",
                                             "stdout.txt", "system.conf"}));
  EXPECT_EQ(desktop.Home().Read("stdout.txt") + desktop.Home().Read("stderr.txt"), "");
}

TEST(Configuration, HelpAndVersionAnswerBeforeAnythingElse) {
  for (const char* option : {"--help", "--version"}) {
    Desktop desktop;
    desktop.Configure("[Command]\nWatch=config Watch\n[Watch Remove]\n1=kill x\n");
    desktop.Start({option});
    EXPECT_EQ(desktop.Stop(0), 0);
    EXPECT_NE(desktop.Home().Read("stdout.txt").find("qixxwatch"), std::string::npos);
    EXPECT_TRUE(desktop.Trace().empty());
  }
}

}  // namespace
}  // namespace qixx::testing
