// From a card in a reader to the commands of the event: which events count, in which order things
// happen, and how the service ends.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>

#include "tests/end_to_end/service_test.h"
#include "tests/support/notify_listener.h"

namespace qixx::testing {
namespace {

using namespace std::chrono_literals;

class Events : public ServiceTest {
 protected:
  /// The process that the service started first.
  [[nodiscard]] pid_t FirstForked() const {
    const Lines forked = desktop.TraceAfter("Helper - Forked process id ");
    EXPECT_FALSE(forked.empty());
    return forked.empty() ? 0 : std::stoi(forked.front());
  }

  const std::string in_ = Echo("in", "in.txt");
  const std::string out_ = Echo("out", "out.txt");
};

TEST_F(Events, InsertAndRemoveRunTheirCommandsInOrder) {
  Watch("-sync", {in_}, {out_});
  InsertCard();
  EXPECT_TRUE(desktop.Holds("in.txt", "in\n"));
  EXPECT_FALSE(Exists("out.txt"));
  RemoveCard();
  EXPECT_TRUE(desktop.Holds("out.txt", "out\n"));
  Stop();
  std::string own;
  for (const std::string& line : desktop.TraceAfter("Watch - ")) {
    if (!line.starts_with("Command")) own += line + "\n";
  }
  EXPECT_EQ(own,
            "Starting\nConfiguration: 'Watch Insert'\nConfiguration: 'Watch Remove'\n"
            "Started 'Watch'\nRunning 'Watch'\nEvent\nEvent\n"
            "Inserted event ...\nConfiguration: 'Watch Insert'\nExecute insert command: " +
                in_ +
                "\nInserted event ... OK\nConnected slot 1\nEvent\n"
                "Remove event ...\nConfiguration: 'Watch Remove'\nExecute remove command: " +
                out_ + "\nRemove event ... done\nDisconnected slot 1\nStopping 'Watch'\nStopped\n");
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

TEST_F(Events, ExtraWatchersRunTheirOwnSectionsAndEndWithTheirParent) {
  desktop.Configure("[Command]\nWatch=-sync config Watch|One|Two\nWatch Two=-sync config Other\n" +
                    Section("Watch Insert", {in_}) +
                    Section("Watch One Insert", {Echo("one", "one.txt")}) +
                    Section("Watch Other Insert", {Echo("other", "other.txt")}));
  desktop.Start();
  const Lines sections = {"Watch'", "One'", "Other'"};
  for (const std::string& section : sections) {
    ASSERT_TRUE(desktop.Traced("Watch - Running '" + section));
  }
  desktop.InsertCard(1);
  for (const std::string word : {"in", "one", "other"}) {
    EXPECT_TRUE(desktop.Holds(word + ".txt", word + "\n"));
  }
  Stop();
  for (const std::string& section : sections) {
    EXPECT_TRUE(desktop.Traced("Watch - Stopping '" + section));
  }
  EXPECT_TRUE(desktop.Traced("Watch - Stopped", 3));
}

TEST_F(Events, ExtraWatchersEndWithAKilledParentAndLeaveTheirCommands) {
  const std::string id = desktop.Path("id.txt"), gate = desktop.Path("gate");
  ASSERT_EQ(::mkfifo(gate.c_str(), 0600), 0);
  const std::string program = desktop.WriteProgram("echo $$ > " + id + ".new && mv " + id +
                                                   ".new " + id + "; read x < " + gate);
  desktop.Configure("[Command]\nWatch=-sync config Watch|One\nWatch One=-sync config One|Two\n" +
                    Section("Watch Insert", {"kill x"}) + Section("Watch One Insert", {"kill x"}) +
                    Section("Watch Two Insert", {program}));
  desktop.Start();
  ASSERT_TRUE(desktop.Traced("Watch - Running 'Two'"));
  desktop.InsertCard(1);
  ASSERT_TRUE(Eventually([this] { return Exists("id.txt"); }));
  EXPECT_EQ(desktop.Stop(SIGKILL), -SIGKILL);
  EXPECT_TRUE(desktop.Traced("Watch - Stopping 'One'"));
  EXPECT_TRUE(desktop.Traced("Watch - Stopping 'Two'"));
  EXPECT_EQ(::kill(std::stoi(Read("id.txt")), 0), 0) << "the command outlives them";
  ::close(::open(gate.c_str(), O_WRONLY | O_CLOEXEC));
}

TEST_F(Events, ExtraWatchersEndWhereSigtermIsIgnoredAlsoWhenTheirPipeStaysOpen) {
  desktop.Configure("[Command]\nWatch=-sync config Watch|One\n" +
                    Section("Watch Insert", {"kill x"}) + Section("Watch One Remove", {out_}));
  std::size_t runs = 0;
  for (const int signal : {SIGINT, SIGKILL}) {
    desktop.Start({"-c", "trap '' TERM; exec " QIXX_PROGRAM}, "/bin/sh");
    ASSERT_TRUE(desktop.Traced("Watch - Running 'One'", ++runs));
    std::vector<int> held;
    const std::string folder = "/proc/" + std::to_string(desktop.Process()) + "/fd";
    for (const auto& file : std::filesystem::directory_iterator(folder)) {
      if (signal != SIGKILL || !std::filesystem::is_fifo(file)) continue;
      held.push_back(::open(file.path().c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    }
    desktop.Stop(signal);
    EXPECT_TRUE(desktop.Traced("Watch - Stopping 'One'", runs)) << signal;
    for (const int pipe : held) ::close(pipe);
  }
}

TEST_F(Events, SignalToAllWatchersLetsEachFinishItsList) {
  Lines remove(20, "/bin/true");
  remove.push_back(out_);
  desktop.Configure("[Command]\nWatch=-sync config Watch|One\nWatch One=-sync config One\n" +
                    Section("Watch Insert", {"kill x"}) + Section("Watch One Remove", remove));
  desktop.Start();
  ASSERT_TRUE(desktop.Traced("Watch - Running 'One'"));
  desktop.InsertCard(1);
  ASSERT_TRUE(desktop.Traced("Watch - Connected slot 1", 2));
  desktop.RemoveCard(1);
  ASSERT_TRUE(desktop.Traced("Watch - Execute remove command: /bin/true"));
  ::kill(FirstForked(), SIGTERM);
  Stop();
  EXPECT_TRUE(desktop.Holds("out.txt", "out\n")) << "the other one passes its signal on";
}

TEST_F(Events, ExtraWatcherThatWasKilledIsStartedAgain) {
  desktop.Configure("[Command]\nWatch=-sync config Watch|Lock\nWatch Lock=-sync config Lock\n" +
                    Section("Watch Insert", {"kill x"}) + Section("Watch Lock Remove", {out_}));
  desktop.Start();
  // One that ends as soon as it was started is told of in another way.
  ASSERT_TRUE(desktop.Traced("Watch - Running 'Watch'"));
  ::kill(FirstForked(), SIGKILL);
  const std::string told =
      "qixxwatch: extra watcher 'Lock' was ended by signal 9\n"
      "qixxwatch: extra watcher 'Lock' is started again\n";
  // It is looked after in each 32nd round.
  EXPECT_TRUE(Eventually([&] { return Errors() == told; }, 45s));
  EXPECT_TRUE(desktop.Traced("Watch - Running 'Lock'", 2));
  Stop();
  EXPECT_TRUE(desktop.Traced("Watch - Stopped", 2));
}

TEST_F(Events, ExtraWatchersGoOnWhenTheirParentHasNothingToDo) {
  desktop.Configure("[Command]\nWatch=-sync config Watch|One\nWatch One=-sync config One\n" +
                    Section("Watch One Insert", {in_}) + Section("Watch One Remove", {out_}));
  EXPECT_EQ(RunToItsEnd({}), 0);
  ASSERT_TRUE(desktop.Traced("Watch - Running 'One'"));
  InsertCard();
  ::kill(FirstForked(), SIGTERM);
  EXPECT_TRUE(desktop.Traced("Watch - Stopped", 2));
}

TEST_F(Events, WatcherWithNothingToDoKeepsItsExtraWatchersBelowAServiceManager) {
  NotifyListener listener(desktop.Path("notify"));
  desktop.SetVariable("NOTIFY_SOCKET", desktop.Path("notify"));
  desktop.SetVariable("WATCHDOG_USEC", "200000");
  for (const std::string name : {"Main", "Logon"}) {
    desktop.Configure("[Command]\nWatch=-sync config " + name +
                      "|Between\nWatch Between=-sync config Empty|One\n" +
                      Section("Watch Logon Insert", {"kill x"}) +
                      Section("Watch One Remove", {out_}));
    std::filesystem::remove(desktop.Path("trace.log"));
    desktop.Start();
    ASSERT_TRUE(desktop.Traced("Watch - Staying for extra watchers", 2)) << name;
    ASSERT_TRUE(desktop.Traced("Watch - Running 'One'"));
    Lines told = listener.Take();
    EXPECT_TRUE(Eventually([&] {
      std::ranges::move(listener.Take(), std::back_inserter(told));
      return listener.Signs() != 0;
    }));
    EXPECT_EQ(told, (Lines{"READY=1", "STATUS=Looking after extra watchers"}));
    if (name == "Main") {
      // Both have forked, in no order that the trace would tell.
      std::string children = "/proc/" + std::to_string(desktop.Process()) + "/task/";
      children.append(std::to_string(desktop.Process())).append("/children");
      pid_t between = 0;
      std::ifstream(children) >> between;
      ASSERT_GT(between, 0);
      ::kill(between, SIGKILL);
      EXPECT_TRUE(desktop.Traced("Watch - Running 'One'", 2)) << "it is started again";
      desktop.Configure("[Command]\nWatch=x\n" + Section("Watch Main Insert", {in_}) +
                        Section("Watch One Remove", {out_}));
      EXPECT_TRUE(desktop.Traced("Watch - Running 'Main'")) << "its commands are there now";
      EXPECT_TRUE(
          Eventually([&] { return std::ranges::count(listener.Take(), "STATUS=No card") != 0; }));
    }
    Stop();
    EXPECT_TRUE(desktop.Traced("Watch - Stopping 'One'", name == "Main" ? 2 : 1));
    EXPECT_EQ(listener.Take(), (Lines{"STOPPING=1"}));
  }
}

TEST_F(Events, ExtraWatchersAreLimitedInAWholeTree) {
  desktop.Configure("[Command]\nWatch=-sync config A|A|A\nWatch A=-sync config A|A|A\n" +
                    Section("Watch A Insert", {in_}));
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
  desktop.Configure("[Watch]\nBackground=show -icon\n[Command]\nWatch=config Watch\n" +
                    Section("Watch Remove", {out_}));
  desktop.Start();
  EXPECT_TRUE(desktop.Holds("shown.txt", "show -icon\n"));
  ASSERT_TRUE(desktop.Traced("Watch - Running 'Watch'"));
  Stop();
  EXPECT_TRUE(desktop.Holds("shown.txt", "show -icon\nshow -icon -hide\n"));
}

TEST_F(Events, SimulationRunsASectionOnceWithoutTheLibrary) {
  Configure("", {in_, "close x", Echo("after", "after.txt")});
  EXPECT_EQ(RunToItsEnd({"-simulate", "\"insert\""}), 0);
  EXPECT_TRUE(desktop.Holds("in.txt", "in\n"));
  EXPECT_TRUE(desktop.Holds("after.txt", "after\n"));
  EXPECT_EQ(desktop.TraceCount("Watch - Simulate insert at 2 failed"), 1U);
  EXPECT_TRUE(desktop.TraceAfter("WrapperPkcs11 - Loaded").empty());
}

}  // namespace
}  // namespace qixx::testing
