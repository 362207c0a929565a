// From a card in a reader to the commands of the event: which events count, in which order things
// happen, and how the service ends.
#include <fstream>

#include "tests/end_to_end/service_test.h"
#include "tests/support/notify_listener.h"

namespace qixx::testing {
namespace {

namespace fs = std::filesystem;
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
  /// A process that the service itself has forked.
  [[nodiscard]] pid_t Forked() const {
    const std::string id = std::to_string(Process());
    pid_t child = 0;
    std::ifstream("/proc/" + id + "/task/" + id + "/children") >> child;
    if (child <= 0) throw std::runtime_error("no child");
    return child;
  }

  const std::string in_ = Echo("in");
  const std::string out_ = Echo("out");
};

TEST_F(Events, InsertAndRemoveRunTheirCommandsInOrder) {
  Watch("-sync", {in_}, {out_});
  Insert();
  EXPECT_TRUE(Ran("in"));
  EXPECT_FALSE(Exists("out"));
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

TEST_F(Events, AnySignalEndsTheServiceInOrderAlsoDuringAWait) {
  ConfigureWatch("-wait \"600\" -sync", {in_});
  InsertCard(1);
  std::size_t runs = 0;
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
    Start();
    Await("Watch - Inserted event ...", ++runs);
    EXPECT_EQ(Stop(signal), 0) << signal;
    EXPECT_EQ(TraceCount("Watch - Inserted event ... FAILED"), runs);
    EXPECT_EQ(TraceCount("Watch - Stopped"), runs);
  }
  EXPECT_FALSE(Exists("in"));
}

TEST_F(Events, ExtraWatchersEndWithAKilledParentAndLeaveTheirCommands) {
  const std::string program = WriteProgram("until [ -e " + Path("gate") +
                                           " ]; do sleep .1; done; echo alive > " + Path("alive"));
  ConfigureWatchers(
      "-sync config Watch|One\nWatch One=-sync config One|Two",
      {{"Insert", {"kill x"}}, {"One Insert", {"kill x"}}, {"Two Insert", {program}}});
  Start();
  Await("Watch - Running 'Two'");
  InsertCard(1);
  Await("Watch - Connected slot 1", 3);
  EXPECT_EQ(Stop(SIGKILL), -SIGKILL);
  for (const std::string name : {"One", "Two"}) Await("Watch - Stopping '" + name + "'");
  Home().Write("gate", "");
  EXPECT_TRUE(Ran("alive")) << "the command outlives them";
}

TEST_F(Events, SignalToAllWatchersLetsEachFinishItsList) {
  Lines remove(20, "/bin/true");
  remove.push_back(out_);
  WatchWithOne({{"One Remove", remove}});
  InsertCard(1);
  Await("Watch - Connected slot 1", 2);
  RemoveCard(1);
  Await("Watch - Execute remove command: /bin/true");
  ::kill(Forked(), SIGTERM);
  Stop();
  EXPECT_TRUE(Ran("out")) << "the other one passes its signal on";
}

TEST_F(Events, ExtraWatcherThatHangsInTheLibraryEndsBehindItsParent) {
  WatchWithOne({{"One Insert", {"kill x"}}});
  const std::string program = "/proc/" + std::to_string(Forked()) + "/exe";
  SetModuleFaults("hang=C_WaitForSlotEvent\n");
  ::sleep(2);  // behind which it has polled again
  EXPECT_EQ(Stop(SIGKILL), -SIGKILL);
  EXPECT_TRUE(Eventually([&] { return !fs::exists(program); }, std::chrono::seconds(60)));
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

TEST_F(Events, ExtraWatchersAreLimitedInAWholeTree) {
  ConfigureWatchers("-sync config A|A|A\nWatch A=-sync config A|A|A", {{"A Insert", {in_}}});
  Start();
  constexpr std::size_t kAll = 33;
  Await("Watch - Running 'A'", kAll);
  Stop();
  Await("Watch - Stopped", kAll);
  EXPECT_EQ(TraceCount("Watch - Starting"), kAll);
  EXPECT_GE(TraceCount("Watch - Extra watchers end at 32 in all"), 1U);
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
