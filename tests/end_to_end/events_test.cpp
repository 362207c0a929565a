// From a card in a reader to the commands of the event: which events count, in which order things
// happen, and how the service ends.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "tests/end_to_end/desktop.h"
#include "tests/support/eventually.h"

namespace qixx::testing {
namespace {

using Lines = std::vector<std::string>;

std::string Commands(const Desktop& desktop) {
  return "[Watch Insert]\n1=" + desktop.Echo("in", "in.txt") +
         "\n[Watch Remove]\n1=" + desktop.Echo("out", "out.txt") + "\n";
}

std::string Watching(const Desktop& desktop, const std::string& options = "") {
  return "[Command]\nWatch=" + options + "config Watch\n" + Commands(desktop);
}

TEST(Events, InsertAndRemoveRunTheirCommandsInOrder) {
  Desktop desktop;
  desktop.Configure(Watching(desktop, "-sync "));
  desktop.Start();
  ASSERT_TRUE(desktop.Traced("Watch - Running 'Watch'")) << desktop.Report();

  desktop.InsertCard(1);
  EXPECT_TRUE(desktop.Holds("in.txt", "in\n")) << desktop.Report();
  EXPECT_TRUE(desktop.Traced("Watch - Connected slot 1"));
  EXPECT_FALSE(std::filesystem::exists(desktop.Path("out.txt")));
  desktop.RemoveCard(1);
  EXPECT_TRUE(desktop.Holds("out.txt", "out\n")) << desktop.Report();
  EXPECT_TRUE(desktop.Traced("Watch - Disconnected slot 1"));

  EXPECT_EQ(desktop.Stop(), 0) << desktop.Report();
  Lines own;
  for (const std::string& line : desktop.TraceAfter("Watch - ")) {
    if (!line.starts_with("Command")) own.push_back(line);
  }
  const std::string echo_in = desktop.Echo("in", "in.txt");
  const std::string echo_out = desktop.Echo("out", "out.txt");
  EXPECT_EQ(own, (Lines{"Starting",
                        "Configuration: 'Watch Insert'",
                        "Configuration: 'Watch Remove'",
                        "Started 'Watch'",
                        "Running 'Watch'",
                        "Event",
                        "Event",
                        "Inserted event ...",
                        "Configuration: 'Watch Insert'",
                        "Execute insert command: " + echo_in,
                        "Inserted event ... OK",
                        "Connected slot 1",
                        "Event",
                        "Remove event ...",
                        "Configuration: 'Watch Remove'",
                        "Execute remove command: " + echo_out,
                        "Remove event ... done",
                        "Disconnected slot 1",
                        "Stopping 'Watch'",
                        "Stopped"}))
      << desktop.Report();
}

TEST(Events, StartWithoutCardRunsTheRemoveCommandsOnceUnlessSync) {
  for (const bool sync : {false, true}) {
    Desktop desktop;
    desktop.Configure(Watching(desktop, sync ? "-sync " : ""));
    desktop.Start();
    ASSERT_TRUE(desktop.Traced("Watch - Event")) << desktop.Report();
    if (sync) {
      desktop.InsertCard(1);
      EXPECT_TRUE(desktop.Traced("Watch - Connected slot 1"));
      EXPECT_EQ(desktop.TraceCount("Watch - Remove event ..."), 0U);
    } else {
      EXPECT_TRUE(desktop.Traced("Watch - Disconnected slot 0")) << desktop.Report();
      EXPECT_TRUE(desktop.Holds("out.txt", "out\n"));
    }
    EXPECT_EQ(desktop.Stop(), 0);
  }
}

TEST(Events, CardAtStartIsConnectedInTheFirstRound) {
  Desktop desktop;
  desktop.Configure(Watching(desktop));
  desktop.InsertCard(1);
  desktop.Start();
  EXPECT_TRUE(desktop.Holds("in.txt", "in\n")) << desktop.Report();
  EXPECT_TRUE(desktop.Traced("Watch - Connected slot 1"));
  EXPECT_EQ(desktop.TraceCount("Watch - Remove event ..."), 0U);
  EXPECT_EQ(desktop.Stop(), 0);
}

TEST(Events, SecondReaderIsAlreadyConnectedAndItsRemovalChangesNothing) {
  Desktop desktop;
  desktop.Configure(Watching(desktop, "-sync "));
  desktop.AddReader(4);
  desktop.Start();
  ASSERT_TRUE(desktop.Traced("Watch - Event")) << desktop.Report();
  desktop.InsertCard(1);
  ASSERT_TRUE(desktop.Traced("Watch - Connected slot 1")) << desktop.Report();
  desktop.InsertCard(4);
  EXPECT_TRUE(desktop.Traced("Watch - Already connected")) << desktop.Report();
  desktop.RemoveCard(1);
  EXPECT_TRUE(desktop.Traced("Watch - Disconnected slot 1"));
  // The card that stayed is not connected by itself; its removal is none of a connected slot.
  desktop.RemoveCard(4);
  EXPECT_TRUE(desktop.Traced("Watch - Event", 5)) << desktop.Report();
  EXPECT_EQ(desktop.Stop(), 0);
  EXPECT_EQ(desktop.TraceCount("Watch - Inserted event ..."), 1U);
  EXPECT_EQ(desktop.TraceCount("Watch - Remove event ..."), 1U);
}

TEST(Events, OnlyFirstSlotsOfAGroupAndHighSlotsCount) {
  Desktop desktop;
  desktop.Configure(Watching(desktop, "-sync "));
  for (const int slot : {2, 3, 96, 97}) desktop.AddReader(slot);
  desktop.Start();
  ASSERT_TRUE(desktop.Traced("Watch - Event")) << desktop.Report();
  for (const int slot : {2, 3, 96}) desktop.InsertCard(slot);
  desktop.InsertCard(97);
  EXPECT_TRUE(desktop.Traced("Watch - Connected slot 97")) << desktop.Report();
  EXPECT_EQ(desktop.Stop(), 0);
  EXPECT_EQ(desktop.TraceCount("Watch - Event"), 2U) << desktop.Report();
}

TEST(Events, RecognizedIgnoresATokenThatCannotBeRead) {
  Desktop desktop;
  desktop.Configure(Watching(desktop, "-sync -recognized "));
  desktop.SetModuleFaults("fail=C_GetTokenInfo:0xe1\n");
  desktop.Start();
  ASSERT_TRUE(desktop.Traced("Watch - Event")) << desktop.Report();
  desktop.InsertCard(1);
  ASSERT_TRUE(desktop.Traced("Watch - Event", 2)) << desktop.Report();
  desktop.RemoveCard(1);
  ASSERT_TRUE(desktop.Traced("Watch - Event", 3)) << desktop.Report();
  desktop.SetModuleFaults("");
  desktop.InsertCard(1);
  EXPECT_TRUE(desktop.Traced("Watch - Connected slot 1")) << desktop.Report();
  EXPECT_EQ(desktop.Stop(), 0);
  EXPECT_EQ(desktop.TraceCount("Watch - Inserted event ..."), 1U);
}

TEST(Events, StopsInOrderByEverySignalAlsoDuringAWait) {
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
    Desktop desktop;
    desktop.Configure(Watching(desktop, "-wait \"600\" -sync "));
    desktop.Start();
    ASSERT_TRUE(desktop.Traced("Watch - Event")) << desktop.Report();
    desktop.InsertCard(1);
    ASSERT_TRUE(desktop.Traced("Watch - Inserted event ...")) << desktop.Report();
    EXPECT_EQ(desktop.Stop(signal), 0) << desktop.Report();
    EXPECT_EQ(desktop.TraceCount("Watch - Inserted event ... FAILED"), 1U);
    EXPECT_EQ(desktop.TraceCount("Watch - Stopped"), 1U) << desktop.Report();
    EXPECT_FALSE(std::filesystem::exists(desktop.Path("in.txt")));
  }
}

TEST(Events, WaitHoldsTheInsertCommandsBackAndACardPulledMeanwhileGivesFailed) {
  Desktop desktop;
  desktop.Configure("[Command]\nWatch=-match \"cn=nobody\" -wait \"2|1\" -sync config Watch\n" +
                    Commands(desktop));
  desktop.Start();
  ASSERT_TRUE(desktop.Traced("Watch - Event")) << desktop.Report();
  desktop.InsertCard(1);
  EXPECT_TRUE(desktop.Traced("Watch - Inserted event ... FAILED")) << desktop.Report();
  EXPECT_TRUE(desktop.Traced("Watch - Connected slot 1"));
  const auto pulled = std::chrono::steady_clock::now();
  desktop.RemoveCard(1);
  EXPECT_TRUE(desktop.Holds("out.txt", "out\n")) << desktop.Report();
  EXPECT_GE(std::chrono::steady_clock::now() - pulled, std::chrono::milliseconds(999));
  EXPECT_EQ(desktop.Stop(), 0);
  EXPECT_FALSE(std::filesystem::exists(desktop.Path("in.txt")));
}

TEST(Events, RoundLimitEndsTheRunByItself) {
  Desktop desktop;
  desktop.Configure("");
  desktop.Start({"-p", "/bin/true", "-c", desktop.Path("none.conf"), "-n", "3"});
  EXPECT_EQ(desktop.Stop(0), 0) << desktop.Report();
  EXPECT_EQ(desktop.TraceCount("Watch - Stopped"), 1U) << desktop.Report();
}

TEST(Events, KeywordFormStartsItsProgramAndClearsTheFile) {
  Desktop desktop;
  desktop.Configure("");
  const std::string file = desktop.Home().Write("logon.conf", "[User]\nUsername=ann\nDomain=d\n");
  const std::string program = desktop.WriteProgram("echo \"$2\" > " + desktop.Path("ran.txt"));
  desktop.Start({"-sync", "-p", program, "-c", file, "-a", "\"one two\""});
  ASSERT_TRUE(desktop.Traced("Watch - Event")) << desktop.Report();
  desktop.InsertCard(1);
  EXPECT_TRUE(desktop.Traced("Watch - Process 0 started")) << desktop.Report();
  EXPECT_TRUE(desktop.Holds("ran.txt", "two\n")) << desktop.Report();
  EXPECT_EQ(desktop.Home().Read("logon.conf"), "[User]\nUsername=ann\nDomain=d\n");
  desktop.RemoveCard(1);
  EXPECT_TRUE(desktop.Holds("logon.conf", "[User]\nUsername=\nDomain=\n")) << desktop.Report();
  EXPECT_EQ(desktop.Stop(), 0);
}

TEST(Events, ExtraWatchersRunTheirOwnSectionsAndEndWithTheirParent) {
  Desktop desktop;
  desktop.Configure(
      "[Command]\nWatch=-sync config Watch|One|Two\nWatch Two=-sync config Other\n"
      "[Watch Insert]\n1=" +
      desktop.Echo("main", "main.txt") +
      "\n[Watch One Insert]\n1=" + desktop.Echo("one", "one.txt") +
      "\n[Watch Other Insert]\n1=" + desktop.Echo("two", "two.txt") + "\n");
  desktop.Start();
  for (const char* section : {"Watch", "One", "Other"}) {
    ASSERT_TRUE(desktop.Traced("Watch - Running '" + std::string(section) + "'"))
        << desktop.Report();
  }
  desktop.InsertCard(1);
  EXPECT_TRUE(desktop.Holds("main.txt", "main\n")) << desktop.Report();
  EXPECT_TRUE(desktop.Holds("one.txt", "one\n")) << desktop.Report();
  EXPECT_TRUE(desktop.Holds("two.txt", "two\n")) << desktop.Report();
  EXPECT_EQ(desktop.Stop(), 0);
  for (const char* section : {"Watch", "One", "Other"}) {
    EXPECT_TRUE(desktop.Traced("Watch - Stopping '" + std::string(section) + "'"))
        << desktop.Report();
  }
  EXPECT_TRUE(desktop.Traced("Watch - Stopped", 3));
}

TEST(Events, BackgroundProgramIsStartedAndToldToHide) {
  Desktop desktop;
  // The main program stands in the "bin" beside the installation directory.
  const TemporaryFolder& home = desktop.Home();
  std::filesystem::create_directories(home.Path("lib"));
  std::filesystem::copy_file(std::string(QIXX_SOFTCARD_FOLDER) + "libqixp11.so",
                             home.Path("lib/libqixp11.so"));
  desktop.WriteProgram("echo \"$@\" >> " + home.Path("shown.txt"), "bin/qix");
  home.Write("system.conf", "[Trace]\nwatch=" + home.Path("trace.log") +
                                "\n[Install]\nDirectory=" + home.Path("lib") + "\n" +
                                Watching(desktop, "-sync ") + "[Watch]\nBackground=show -icon\n");
  desktop.Start();
  EXPECT_TRUE(desktop.Holds("shown.txt", "show -icon\n")) << desktop.Report();
  ASSERT_TRUE(desktop.Traced("Watch - Running 'Watch'"));
  EXPECT_EQ(desktop.Stop(), 0);
  EXPECT_TRUE(desktop.Holds("shown.txt", "show -icon\nshow -icon -hide\n")) << desktop.Report();
}

TEST(Events, SimulationRunsASectionOnceWithoutTheLibrary) {
  Desktop desktop(Module::kNone);
  desktop.Configure("[Watch Insert]\n1=" + desktop.Echo("in", "in.txt") +
                    "\n2=close x\n3=" + desktop.Echo("after", "after.txt") +
                    "\n[Watch Remove]\n1=kill x\n2=" + desktop.Echo("out", "out.txt") + "\n");
  desktop.Start({"-simulate", "\"insert\""});
  EXPECT_EQ(desktop.Stop(0), 0) << desktop.Report();
  EXPECT_TRUE(desktop.Holds("in.txt", "in\n")) << desktop.Report();
  EXPECT_TRUE(desktop.Holds("after.txt", "after\n")) << desktop.Report();
  EXPECT_EQ(desktop.TraceCount("Watch - Simulate insert at 2 failed"), 1U) << desktop.Report();
  desktop.Start({"-simulate", "\"pulled\""});
  EXPECT_EQ(desktop.Stop(0), 0);
  EXPECT_TRUE(desktop.Holds("out.txt", "out\n")) << desktop.Report();
  EXPECT_EQ(desktop.TraceAfter("WrapperPkcs11 - Loaded").size(), 0U);
}

}  // namespace
}  // namespace qixx::testing
