// Every command keyword, lists with gaps and failures, and what happens to a list after them.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/end_to_end/desktop.h"
#include "tests/support/eventually.h"

namespace qixx::testing {
namespace {

bool Exists(const Desktop& desktop, const std::string& file) {
  return std::filesystem::exists(desktop.Path(file));
}

/// Starts a desktop with a card in and the given insert and remove entries.
void RunCommands(Desktop& desktop, const std::string& insert, const std::string& remove = "") {
  desktop.Configure("[Command]\nWatch=-sync config Watch\n[Watch Insert]\n" + insert +
                    "[Watch Remove]\n" + remove);
  desktop.InsertCard(1);
  desktop.Start();
  ASSERT_TRUE(desktop.Traced("Watch - Connected slot 1")) << desktop.Report();
}

TEST(Commands, ListEndsAtAGapAndAnEmptyEntryIsSkipped) {
  Desktop desktop;
  RunCommands(
      desktop,
      "1=\n2=" + desktop.Echo("two", "two.txt") + "\n4=" + desktop.Echo("four", "four.txt") + "\n",
      "1=kill x\n");
  EXPECT_TRUE(desktop.Holds("two.txt", "two\n")) << desktop.Report();
  EXPECT_EQ(desktop.Stop(), 0);
  EXPECT_FALSE(Exists(desktop, "four.txt"));
}

TEST(Commands, InsertStopsAtAFailureAndRemoveDoesNot) {
  Desktop desktop;
  const std::string list = "1=kill x\n2=-r HKLM\n3=close x\n4=";
  RunCommands(desktop, list + desktop.Echo("in", "in.txt") + "\n",
              list + desktop.Echo("out", "out.txt") + "\n");
  desktop.RemoveCard(1);
  EXPECT_TRUE(desktop.Holds("out.txt", "out\n")) << desktop.Report();
  EXPECT_EQ(desktop.Stop(), 0);
  EXPECT_FALSE(Exists(desktop, "in.txt"));
  EXPECT_EQ(desktop.TraceCount("Watch - Execute insert command: close x"), 1U);
  EXPECT_EQ(desktop.TraceCount("Watch - Inserted event ... OK"), 1U);
}

TEST(Commands, ApplicationTakesAQuotedProgramAndArguments) {
  Desktop desktop;
  const std::string program =
      desktop.WriteProgram("printf '%s|' \"$@\" > " + desktop.Path("seen.txt"), "my programs/tool");
  RunCommands(desktop,
              "1=application \"" + program + "\"   one \"two words\" \"-o ption\" \"\" \"x\"\n");
  EXPECT_TRUE(desktop.Holds("seen.txt", "one|two words|\"-o ption\"|\"\"|\"x\"|"))
      << desktop.Report();
  EXPECT_EQ(desktop.Stop(), 0);
}

TEST(Commands, ParallelCommandsRunBesideTheList) {
  Desktop desktop;
  RunCommands(desktop, "1=parallel " + desktop.Echo("a", "a.txt") +
                           "\n2=parallel kill x\n3=parallel " + std::string(256, 'x') +
                           "\n4=" + desktop.Echo("never", "never.txt") + "\n");
  EXPECT_TRUE(desktop.Holds("a.txt", "a\n")) << desktop.Report();
  EXPECT_TRUE(desktop.Traced("Watch - Thread execute command ... done", 2)) << desktop.Report();
  EXPECT_EQ(desktop.Stop(), 0) << desktop.Report();
  EXPECT_FALSE(Exists(desktop, "never.txt"));
}

TEST(Commands, ManyParallelCommandsEndBeforeTheService) {
  Desktop desktop;
  std::string insert;
  for (int n = 1; n <= 20; ++n) {
    const std::string word = std::to_string(n);
    insert += word + "=parallel " + desktop.Echo(word, "p" + word + ".txt") + "\n";
  }
  RunCommands(desktop, insert);
  EXPECT_EQ(desktop.Stop(), 0) << desktop.Report();
  EXPECT_EQ(desktop.TraceCount("Watch - Thread execute command ... done"), 20U) << desktop.Report();
  for (int n = 1; n <= 20; ++n) {
    EXPECT_TRUE(desktop.Holds("p" + std::to_string(n) + ".txt", std::to_string(n) + "\n"));
  }
}

TEST(Commands, LoadCallsAFunctionOfALibrary) {
  Desktop desktop;
  RunCommands(desktop, "1=load " QIXX_CALLED_LIBRARY ",Called " + desktop.Path("called.txt") +
                           "\n2=load /nonexistent.so,Called x\n3=" +
                           desktop.Echo("never", "never.txt") + "\n");
  EXPECT_TRUE(desktop.Holds("called.txt", "called\n")) << desktop.Report();
  EXPECT_EQ(desktop.Stop(), 0);
  EXPECT_EQ(desktop.TraceCount("Helper - Call external ... OK"), 1U);
  EXPECT_EQ(desktop.TraceCount("Helper - Failed to load '/nonexistent.so'"), 1U);
  EXPECT_EQ(desktop.TraceCount("Helper - Call external ... FAILED"), 1U);
  EXPECT_FALSE(Exists(desktop, "never.txt"));
}

TEST(Commands, ExternWritesTheLibrarysAnswerIntoAFile) {
  Desktop desktop;
  const std::string file = desktop.Home().Write("logon.conf", "[User]\nDomain=old\nUsername=\n");
  RunCommands(desktop, "1=extern " QIXX_CALLED_LIBRARY ",ann;example -config " + file +
                           "\n2=" + desktop.Echo("next", "next.txt") + "\n");
  EXPECT_TRUE(desktop.Holds("logon.conf", "[User]\nDomain=example\nUsername=ann\n"))
      << desktop.Report();
  EXPECT_TRUE(desktop.Holds("next.txt", "next\n"));
  EXPECT_EQ(desktop.Stop(), 0);
  EXPECT_FALSE(Exists(desktop, "logon.conf.org"));
}

TEST(Commands, SetOnRemoveClearsTheFileInPlace) {
  Desktop desktop;
  const std::string file =
      desktop.Home().Write("logon.conf", "[User]\nUsername=ann\nCard=%SUBJECT%\n");
  std::filesystem::permissions(file, std::filesystem::perms::owner_read |
                                         std::filesystem::perms::owner_write |
                                         std::filesystem::perms::group_read);
  RunCommands(desktop, "1=kill x\n", "1=set -config " + file + "\n");
  desktop.RemoveCard(1);
  EXPECT_TRUE(desktop.Traced("Watch - Set command ... OK")) << desktop.Report();
  EXPECT_EQ(desktop.Stop(), 0);
  EXPECT_EQ(desktop.Home().Read("logon.conf"), "[User]\nUsername=\nCard=\nDomain=\n");
  EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms::owner_read |
                                                             std::filesystem::perms::owner_write |
                                                             std::filesystem::perms::group_read);
}

TEST(Commands, DirectFormRunsOneCommandForBothEvents) {
  struct Row {
    const char* name;
    const char* mark;
    bool on_remove;
  };
  for (const Row& row : {Row{"both", "", true}, Row{"insert only", "~", false}}) {
    SCOPED_TRACE(row.name);
    Desktop desktop;
    desktop.Configure("[Command]\nWatch=-sync " + std::string(row.mark) + "/bin/touch " +
                      desktop.Path("touched.txt") + "\n");
    desktop.InsertCard(1);
    desktop.Start();
    EXPECT_TRUE(Eventually([&] { return Exists(desktop, "touched.txt"); })) << desktop.Report();
    std::filesystem::remove(desktop.Path("touched.txt"));
    desktop.RemoveCard(1);
    EXPECT_TRUE(desktop.Traced("Watch - Disconnected slot 1"));
    if (row.on_remove) {
      EXPECT_TRUE(Eventually([&] { return Exists(desktop, "touched.txt"); })) << desktop.Report();
    }
    EXPECT_EQ(desktop.Stop(), 0);
    EXPECT_EQ(Exists(desktop, "touched.txt"), row.on_remove);
  }
}

TEST(Commands, SecretsNeverReachTheTrace) {
  Desktop desktop;
  desktop.Configure(
      "[Command]\nWatch=-sync config Watch\n[Watch Insert]\n1=/bin/echo 100% -pin 4711 "
      "-password \"open sesame\" -PUK   0815\n");
  desktop.InsertCard(1);
  desktop.Start({"-p", "/bin/true", "-c", desktop.Path("none.conf"), "-sopin", "1122"});
  ASSERT_TRUE(desktop.Traced("Watch - Connected slot 1")) << desktop.Report();
  EXPECT_EQ(desktop.Stop(), 0);
  const std::string trace = desktop.Home().Read("trace.log");
  EXPECT_NE(trace.find("-pin **** "), std::string::npos) << trace;
  for (const char* secret : {"4711", "sesame", "0815", "1122"}) {
    EXPECT_EQ(trace.find(secret), std::string::npos) << secret << " in " << trace;
  }
}

}  // namespace
}  // namespace qixx::testing
