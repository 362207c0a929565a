// From a card in a reader to the commands of the event: which events count, in which order things
// happen, and how the service ends.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>

#include "tests/end_to_end/service_test.h"

namespace qixx::testing {
namespace {

using namespace std::chrono_literals;

class Events : public ServiceTest {
 protected:
  void WatchBoth(const std::string& options) { Watch(options, {in_}, {out_}); }

  const std::string in_ = Echo("in", "in.txt");
  const std::string out_ = Echo("out", "out.txt");
};

TEST_F(Events, InsertAndRemoveRunTheirCommandsInOrder) {
  WatchBoth("-sync");
  desktop.InsertCard(1);
  EXPECT_TRUE(desktop.Holds("in.txt", "in\n"));
  EXPECT_TRUE(desktop.Traced("Watch - Connected slot 1"));
  EXPECT_FALSE(Exists("out.txt"));
  desktop.RemoveCard(1);
  EXPECT_TRUE(desktop.Holds("out.txt", "out\n"));
  EXPECT_TRUE(desktop.Traced("Watch - Disconnected slot 1"));
  Stop();
  Lines own;
  for (const std::string& line : desktop.TraceAfter("Watch - ")) {
    if (!line.starts_with("Command")) own.push_back(line);
  }
  EXPECT_EQ(own, (Lines{"Starting",
                        "Configuration: 'Watch Insert'",
                        "Configuration: 'Watch Remove'",
                        "Started 'Watch'",
                        "Running 'Watch'",
                        "Event",
                        "Event",
                        "Inserted event ...",
                        "Configuration: 'Watch Insert'",
                        "Execute insert command: " + in_,
                        "Inserted event ... OK",
                        "Connected slot 1",
                        "Event",
                        "Remove event ...",
                        "Configuration: 'Watch Remove'",
                        "Execute remove command: " + out_,
                        "Remove event ... done",
                        "Disconnected slot 1",
                        "Stopping 'Watch'",
                        "Stopped"}));
}

TEST_F(Events, FirstRoundRunsTheRemoveCommandsUnlessThereIsACard) {
  WatchBoth("");
  EXPECT_TRUE(desktop.Traced("Watch - Disconnected slot 0"));
  EXPECT_TRUE(desktop.Holds("out.txt", "out\n"));
  Stop();
  desktop.InsertCard(1);
  desktop.Start();
  EXPECT_TRUE(desktop.Traced("Watch - Connected slot 1"));
  EXPECT_EQ(desktop.TraceCount("Watch - Remove event ..."), 1U);
}

TEST_F(Events, OnlyFirstSlotsOfAGroupAndHighSlotsCount) {
  for (const int slot : {2, 3, 96, 97}) desktop.AddReader(slot);
  WatchBoth("-sync");
  for (const int slot : {2, 3, 96, 97}) desktop.InsertCard(slot);
  EXPECT_TRUE(desktop.Traced("Watch - Connected slot 97"));
  Stop();
  EXPECT_EQ(desktop.TraceCount("Watch - Event"), 2U);
}

TEST_F(Events, RecognizedIgnoresATokenThatCannotBeRead) {
  desktop.SetModuleFaults("fail=C_GetTokenInfo:0xe1\n");
  WatchBoth("-sync -recognized");
  desktop.InsertCard(1);
  ASSERT_TRUE(desktop.Traced("Watch - Event", 2));
  desktop.RemoveCard(1);
  ASSERT_TRUE(desktop.Traced("Watch - Event", 3));
  desktop.SetModuleFaults("");
  desktop.InsertCard(1);
  EXPECT_TRUE(desktop.Traced("Watch - Connected slot 1"));
  Stop();
  EXPECT_EQ(desktop.TraceCount("Watch - Inserted event ..."), 1U);
}

TEST_F(Events, AnySignalEndsTheServiceInOrderAlsoDuringAWait) {
  Configure("-wait \"600\" -sync", {in_});
  desktop.InsertCard(1);
  std::size_t runs = 0;
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
    desktop.Start();
    ASSERT_TRUE(desktop.Traced("Watch - Inserted event ...", ++runs));
    EXPECT_EQ(desktop.Stop(signal), 0) << signal;
    EXPECT_EQ(desktop.TraceCount("Watch - Inserted event ... FAILED"), runs);
    EXPECT_EQ(desktop.TraceCount("Watch - Stopped"), runs);
  }
  EXPECT_FALSE(Exists("in.txt"));
}

TEST_F(Events, WaitHoldsTheInsertCommandsBackAndACardPulledMeanwhileGivesFailed) {
  WatchBoth("-match \"cn=nobody\" -wait \"2|1\" -sync");
  desktop.InsertCard(1);
  EXPECT_TRUE(desktop.Traced("Watch - Inserted event ... FAILED"));
  EXPECT_TRUE(desktop.Traced("Watch - Connected slot 1"));
  const auto pulled = std::chrono::steady_clock::now();
  desktop.RemoveCard(1);
  EXPECT_TRUE(desktop.Holds("out.txt", "out\n"));
  EXPECT_GE(std::chrono::steady_clock::now() - pulled, std::chrono::milliseconds(999));
  EXPECT_FALSE(Exists("in.txt"));
}

TEST_F(Events, ExtraWatchersRunTheirOwnSectionsAndEndWithTheirParent) {
  desktop.Configure(
      "[Command]\nWatch=-sync config Watch|One|Two\nWatch Two=-sync config Other\n"
      "[Watch Insert]\n1=" +
      in_ + "\n[Watch One Insert]\n1=" + Echo("one", "one.txt") +
      "\n[Watch Other Insert]\n1=" + Echo("two", "two.txt") + "\n");
  desktop.Start();
  const Lines sections = {"Watch'", "One'", "Other'"};
  for (const std::string& section : sections) {
    ASSERT_TRUE(desktop.Traced("Watch - Running '" + section));
  }
  desktop.InsertCard(1);
  for (const std::string word : {"in", "one", "two"}) {
    EXPECT_TRUE(desktop.Holds(word + ".txt", word + "\n"));
  }
  Stop();
  for (const std::string& section : sections) {
    EXPECT_TRUE(desktop.Traced("Watch - Stopping '" + section));
  }
  EXPECT_TRUE(desktop.Traced("Watch - Stopped", 3));
}

TEST_F(Events, ExtraWatchersEndWithAKilledParentAndLeaveTheirCommands) {
  desktop.WriteProgram("echo $$ > " + desktop.Path("id.txt") + ".new && mv " +
                       desktop.Path("id.txt") + ".new " + desktop.Path("id.txt") + "; read x < " +
                       desktop.Path("gate"));
  ASSERT_EQ(::mkfifo(desktop.Path("gate").c_str(), 0600), 0);
  desktop.Configure(
      "[Command]\nWatch=-sync config Watch|One\nWatch One=-sync config One|Two\n"
      "[Watch Insert]\n1=kill x\n[Watch One Insert]\n1=kill x\n[Watch Two Insert]\n1=" +
      desktop.Path("program") + "\n");
  desktop.Start();
  ASSERT_TRUE(desktop.Traced("Watch - Running 'Two'"));
  desktop.InsertCard(1);
  ASSERT_TRUE(Eventually([this] { return Exists("id.txt"); }));
  EXPECT_EQ(desktop.Stop(SIGKILL), -SIGKILL);
  EXPECT_TRUE(desktop.Traced("Watch - Stopping 'One'"));
  EXPECT_TRUE(desktop.Traced("Watch - Stopping 'Two'"));
  const int command = std::stoi(desktop.Home().Read("id.txt"));
  EXPECT_EQ(::kill(command, 0), 0) << "the command outlives them";
  ::close(::open(desktop.Path("gate").c_str(), O_WRONLY | O_CLOEXEC));
}

TEST_F(Events, ExtraWatcherThatWasKilledIsStartedAgainAndRunsTheRemovalThatItMissed) {
  std::filesystem::create_directories(desktop.Path("run"));
  desktop.SetVariable("RUNTIME_DIRECTORY", desktop.Path("run"));
  desktop.InsertCard(1);
  desktop.Configure(
      "[Command]\nWatch=-sync config Watch|Lock\nWatch Lock=-sync config Lock\n"
      "[Watch Insert]\n1=kill x\n[Watch Lock Insert]\n1=kill x\n[Watch Lock Remove]\n1=" +
      out_ + "\n");
  desktop.Start();
  ASSERT_TRUE(desktop.Traced("Watch - Connected slot 1", 2));
  const std::vector<std::string> forked = desktop.TraceAfter("Helper - Forked process id ");
  ASSERT_FALSE(forked.empty());
  ::kill(std::stoi(forked.front()), SIGKILL);
  desktop.RemoveCard(1);
  ASSERT_TRUE(desktop.Traced("Watch - Disconnected slot 1"));
  EXPECT_FALSE(Exists("out.txt"));
  // It is looked after in each 32nd round.
  EXPECT_TRUE(Eventually([this] { return desktop.Home().Read("out.txt") == "out\n"; }, 45s));
  ASSERT_TRUE(desktop.Traced("Watch - Extra 'Lock' is started again"));
  EXPECT_EQ(desktop.Home().Read("stderr.txt"),
            "qixxwatch: extra watcher 'Lock' was ended by signal 9\n"
            "qixxwatch: extra watcher 'Lock' is started again\n");
  Stop();
  EXPECT_TRUE(desktop.Traced("Watch - Stopped", 2));
}

TEST_F(Events, ExtraWatchersGoOnWhenTheirParentHasNothingToDo) {
  desktop.Configure(
      "[Command]\nWatch=-sync config Watch|One\nWatch One=-sync config One\n"
      "[Watch One Insert]\n1=" +
      in_ + "\n[Watch One Remove]\n1=" + out_ + "\n");
  desktop.Start();
  EXPECT_EQ(desktop.Stop(0), 0);
  ASSERT_TRUE(desktop.Traced("Watch - Running 'One'"));
  desktop.InsertCard(1);
  EXPECT_TRUE(desktop.Traced("Watch - Connected slot 1"));
  const std::vector<std::string> forked = desktop.TraceAfter("Helper - Forked process id ");
  ASSERT_FALSE(forked.empty());
  ::kill(std::stoi(forked.front()), SIGTERM);
  EXPECT_TRUE(desktop.Traced("Watch - Stopped", 2));
}

TEST_F(Events, ExtraWatchersAreLimitedInAWholeTree) {
  desktop.Configure(
      "[Command]\nWatch=-sync config A|A|A\nWatch A=-sync config A|A|A\n[Watch A Insert]\n1=" +
      in_ + "\n");
  desktop.Start();
  constexpr std::size_t kAll = 33;
  EXPECT_TRUE(desktop.Traced("Watch - Running 'A'", kAll));
  Stop();
  EXPECT_TRUE(desktop.Traced("Watch - Stopped", kAll));
  EXPECT_EQ(desktop.TraceCount("Watch - Starting"), kAll);
  EXPECT_GE(desktop.TraceCount("Watch - Extra watchers end at 32 in all"), 1U);
}

TEST_F(Events, BackgroundProgramIsStartedAndToldToHide) {
  // The main program stands in the "bin" beside the installation directory.
  std::filesystem::create_directories(desktop.Path("lib"));
  std::filesystem::copy_file(QIXX_SOFTCARD_FOLDER "libqixp11.so", desktop.Path("lib/libqixp11.so"));
  desktop.WriteProgram("echo \"$@\" >> " + desktop.Path("shown.txt"), "bin/qix");
  desktop.Use(desktop.Path("lib"));
  desktop.Configure(
      "[Watch]\nBackground=show -icon\n[Command]\nWatch=config Watch\n"
      "[Watch Remove]\n1=" +
      out_ + "\n");
  desktop.Start();
  EXPECT_TRUE(desktop.Holds("shown.txt", "show -icon\n"));
  ASSERT_TRUE(desktop.Traced("Watch - Running 'Watch'"));
  Stop();
  EXPECT_TRUE(desktop.Holds("shown.txt", "show -icon\nshow -icon -hide\n"));
}

TEST_F(Events, SimulationRunsASectionOnceWithoutTheLibrary) {
  Configure("", {in_, "close x", Echo("after", "after.txt")}, {"kill x", out_});
  desktop.Start({"-simulate", "\"insert\""});
  EXPECT_EQ(desktop.Stop(0), 0);
  EXPECT_TRUE(desktop.Holds("in.txt", "in\n"));
  EXPECT_TRUE(desktop.Holds("after.txt", "after\n"));
  EXPECT_EQ(desktop.TraceCount("Watch - Simulate insert at 2 failed"), 1U);
  desktop.Start({"-simulate", "\"pulled\""});
  EXPECT_EQ(desktop.Stop(0), 0);
  EXPECT_TRUE(desktop.Holds("out.txt", "out\n"));
  EXPECT_TRUE(desktop.TraceAfter("WrapperPkcs11 - Loaded").empty());
}

}  // namespace
}  // namespace qixx::testing
