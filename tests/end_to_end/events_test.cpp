// From a card in a reader to the commands of the event: which events count, in which order things
// happen, and how the service ends.
#include "tests/end_to_end/service_test.h"
#include "tests/support/notify_listener.h"

namespace qixx::testing {
namespace {

using ::testing::ElementsAre;

class Events : public ServiceTest {
 protected:
  /// A watcher with an extra one, One, that has `lists`.
  void WatchWithOne(const Lists& lists) {
    Lists all = lists;
    all.push_back({"Insert", {"kill x"}});
    ConfigureWatchers("-sync config Watch|One\nWatch One=-sync config One", all);
    Start();
    Await("Watch - Running 'One'");
  }
  /// The process that the service itself has forked.
  [[nodiscard]] std::string Forked() const {
    const std::string id = std::to_string(process_);
    const std::string children = Home().ReadFile("/proc/" + id + "/task/" + id + "/children");
    return children.substr(0, children.find(' '));
  }

  const std::string in_ = Echo("in");
  const std::string out_ = Echo("out");
};

TEST_F(Events, InsertAndRemoveRunTheirCommandsInOrder) {
  Watch("-sync", {in_}, {out_});
  Insert();
  EXPECT_TRUE(Ran("in"));
  Remove();
  EXPECT_TRUE(Ran("out"));
  Stop();
  Lines own = TraceAfter("Watch - ");
  std::erase_if(own, [](const std::string& line) { return line.starts_with("Command"); });
  EXPECT_THAT(
      own,
      ElementsAre("Starting", "Configuration: 'Watch Insert'", "Configuration: 'Watch Remove'",
                  "Started 'Watch'", "Running 'Watch'", "Event", "Event", "Inserted event ...",
                  "Configuration: 'Watch Insert'", "Execute insert command: " + in_,
                  "Inserted event ... OK", "Connected slot 1", "Event", "Remove event ...",
                  "Configuration: 'Watch Remove'", "Execute remove command: " + out_,
                  "Remove event ... done", "Disconnected slot 1", "Stopping 'Watch'", "Stopped"));
}

TEST_F(Events, SignalEndsTheServiceInOrderAlsoDuringAWait) {
  ConfigureWatch("-wait \"600\" -sync", {in_});
  InsertCard(1);
  Start();
  Await("Watch - Inserted event ...");
  EXPECT_EQ(Stop(SIGHUP), 0);
  EXPECT_EQ(TraceCount("Watch - Inserted event ... FAILED"), 1U);
  EXPECT_EQ(TraceCount("Watch - Stopped"), 1U);
  EXPECT_FALSE(Exists("in"));
}

TEST_F(Events, ExtraWatcherEndsWithAKilledParentAlsoInTheLibraryAndLeavesItsCommand) {
  const std::string gate = Path("gate");
  WatchWithOne(
      {{"One Insert",
        {WriteProgram("until [ -e " + gate + " ]; do sleep .1; done; echo > " + Path("alive"))}}});
  InsertCard(1);
  Await("Watch - Connected slot 1", 2);
  const std::string one = "/proc/" + Forked() + "/exe";
  SetModuleFaults("hang=C_WaitForSlotEvent\n");
  ::sleep(2);  // behind which it has polled again
  EXPECT_EQ(Stop(SIGKILL), -SIGKILL);
  EXPECT_TRUE(Eventually([&] { return !std::filesystem::exists(one); }, std::chrono::minutes(1)));
  Home().Write("gate", "");
  EXPECT_TRUE(Holds("alive", "\n")) << "the command outlives it";
}

TEST_F(Events, SignalToAllWatchersLetsEachFinishItsList) {
  const std::string call = "load " QIXX_CALLED_LIBRARY ",Wait " + Path("gate");
  WatchWithOne({{"One Remove", {call, out_}}});
  InsertCard(1);
  Await("Watch - Connected slot 1", 2);
  RemoveCard(1);
  Await("Watch - Execute remove command: " + call);
  ::kill(std::stoi(Forked()), SIGTERM);
  Stop();
  Home().Write("gate", "");
  EXPECT_TRUE(Ran("out")) << "the other one passes its signal on";
}

TEST_F(Events, WatcherWithNothingToDoKeepsItsExtraWatchersBelowAServiceManager) {
  NotifyListener listener(Path("notify"));
  SetVariable("NOTIFY_SOCKET", Path("notify"));
  const Lists lists = {{"One Remove", {out_}}};
  ConfigureWatchers("-sync config Main|One\nWatch One=-sync config One", lists);
  Start();
  Await("Watch - Running 'One'");
  EXPECT_THAT(listener.Take(2), ElementsAre("READY=1", "STATUS=Looking after extra watchers"));
  ConfigureWatchers("x", {{"Main Insert", {in_}}, lists.front()});
  EXPECT_TRUE(Traced("Watch - Running 'Main'")) << "its commands are there now";
  Stop();
  Await("Watch - Stopping 'One'");
}

TEST_F(Events, WatcherWithNothingToDoLeavesItsExtraWatchersBehind) {
  ConfigureWatchers("-sync config Main|One\nWatch One=-sync config One", {{"One Remove", {out_}}});
  EXPECT_EQ(RunToItsEnd(), 0);
  Insert();
  Remove();
  EXPECT_TRUE(Ran("out"));
}

TEST_F(Events, ExtraWatchersAreLimitedInAWholeTree) {
  ConfigureWatchers("-sync config A|A|A\nWatch A=-sync config A|A|A", {{"A Insert", {in_}}});
  Start();
  constexpr std::size_t kAll = 33;
  Await("Watch - Running 'A'", kAll);
  Stop();
  Await("Watch - Stopped", kAll);
  EXPECT_EQ(TraceCount("Watch - Starting"), kAll);
}

TEST_F(Events, SimulationRunsASectionOnceWithoutTheLibrary) {
  ConfigureWatch("", {in_, "close x", Echo("after")});
  EXPECT_EQ(RunToItsEnd({"-simulate", "\"insert\""}), 0);
  EXPECT_TRUE(Ran("in"));
  EXPECT_TRUE(Ran("after"));
  EXPECT_EQ(TraceCount("Watch - Simulate insert at 2 failed"), 1U);
  EXPECT_THAT(TraceAfter("WrapperPkcs11 - Loaded"), ::testing::IsEmpty());
}

}  // namespace
}  // namespace qixx::testing
