// The commands of an event: where they come from, what they come to, what a removal ends; and the
// loop that meets the events.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <new>
#include <set>
#include <sstream>

#include "runtime/children.h"
#include "runtime/process.h"
#include "runtime/product.h"
#include "tests/support/environment.h"
#include "tests/support/eventually.h"
#include "tests/support/fake_card.h"
#include "tests/support/recipes.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"
#include "tests/watch/scripted.h"
#include "watch/card_mark.h"
#include "watch/command.h"
#include "watch/configuration.h"
#include "watch/event_handlers.h"
#include "watch/event_table.h"
#include "watch/extra_watchers.h"
#include "watch/parallel.h"
#include "watch/simulate.h"
#include "watch/slot_loop.h"
#include "watch/terminate_list.h"

namespace {

std::atomic<int> forksToFail{0};
/// Whether a thread of a library could have read meanwhile what is another watcher's.
std::atomic<bool> environmentChanged{false};

}  // namespace

/// In place of the C library's, to have the system be out of processes.
extern "C" pid_t fork() noexcept {
  const char* const depth = ::getenv("qixwatchdepth");
  if (depth != nullptr && *depth != '2') environmentChanged = true;
  if (forksToFail > 0) {
    --forksToFail;
    errno = EAGAIN;
    return -1;
  }
  return reinterpret_cast<pid_t (*)()>(::dlsym(RTLD_NEXT, "fork"))();
}

namespace qixx::testing {
namespace {

using watch::EventKind;

watch::CWatchOptions Record(const std::string& rest) {
  watch::CWatchOptions record;
  record.rest = rest;
  record.section = "Watch";
  return record;
}

class EventTable : public ::testing::Test {
 protected:
  EventTable() { runtime::InitProductIdentity(); }

  void Configure(const std::string& insert, const std::string& remove) const {
    folder_.Write("system.conf", "[Watch Insert]\n" + insert + "[Watch Remove]\n" + remove);
  }
  TemporaryFolder folder_;
  ScopedVariable path_{"qixconfigglobal", folder_.Path("system.conf").c_str()};
  Scripted machine_{std::vector<Poll>{{1, {{1, "Reader", Recipe().Build()}}}}};
};

TEST_F(EventTable, NamesAndCommandsAreCutAtTheirLimits) {
  EXPECT_EQ(watch::BuildEventSection(EventKind::kInsert, std::string(50, 's')),
            "Watch " + std::string(50, 's') + " Insert");
  EXPECT_FALSE(watch::BuildEventSection(EventKind::kInsert, std::string(51, 's')));
  const std::string text = "kill " + std::string(600, 'x');
  Configure("1=" + text + "\n", "1=" + text + "\n");
  watch::CWatchOptions record = Record("Config");
  const TraceCapture trace;
  EXPECT_TRUE(watch::OnInsertEvent(record, 1, machine_.platform));
  EXPECT_TRUE(trace.Has("Watch - Execute insert command: " + text.substr(0, 511)));
  watch::OnRemoveEvent(record, 1, machine_.platform);
  EXPECT_TRUE(trace.Has("Watch - Execute remove command: " + text.substr(0, 255)));
}

TEST_F(EventTable, QuestionsAboutTheSectionsAlwaysEnd) {
  const std::tuple<const char*, const char*, bool, bool, bool> rows[] = {
      {"1=kill x\n2=close x\n", "1=KILL x\n2=Close x\n4=/bin/true\n", true, false, false},
      {"2=x\n", "1=\n2=kill x\n", false, false, true},
      {"", "1=config\n2=configure\n3=/bin/true\n", true, false, true},
      {"1=config\n", "1=config\n2=config x\n", true, false, false},
      {"1=kill x\n2=config\n", "1=kill x\n2=/bin/true\n", true, true, true},
  };
  for (const auto& [insert, remove, any, on_insert, on_remove] : rows) {
    SCOPED_TRACE(remove);
    Configure(insert, remove);
    EXPECT_EQ(watch::HasEventCommands(Record("config")), any) << "the first entries alone tell";
    config::CConfig config;
    ASSERT_TRUE(watch::LoadProductConfiguration(config));
    EXPECT_EQ(watch::HasOrdinaryRemoveCommand(config, "Watch", EventKind::kInsert), on_insert);
    EXPECT_EQ(watch::IsOrdinaryCommand(config, "Watch", "configured elsewhere"), on_remove);
  }
}

TEST_F(EventTable, GatesAskThreeTimesASecond) {
  Configure("", "1=/bin/true\n");
  watch::CWatchOptions record = Record("kill x");
  record.match = "cn=ann lee";
  record.insertWait = 2;
  EXPECT_TRUE(watch::OnInsertEvent(record, 1, machine_.platform));
  EXPECT_EQ(machine_.clock.slept, std::vector<unsigned>(6, 333));

  machine_.clock.slept.clear();
  machine_.clock.inSleep = [this] {
    if (machine_.clock.slept.size() == 2) machine_.reader.tokens.clear();
  };
  const TraceCapture trace;
  EXPECT_FALSE(watch::OnInsertEvent(record, 1, machine_.platform)) << "pulled meanwhile";
  EXPECT_EQ(machine_.clock.slept.size(), 2U);
  EXPECT_TRUE(trace.Has("Watch - Inserted event ... FAILED"));
  EXPECT_FALSE(trace.Has("Watch - Execute insert command: kill x"));
  record.match = "";
  EXPECT_TRUE(watch::OnInsertEvent(record, 1, machine_.platform)) << "without a match nobody asks";

  machine_.clock.stop = true;
  EXPECT_FALSE(watch::OnInsertEvent(record, 1, machine_.platform)) << "the process is to stop";
  machine_.clock.stop = false;
  machine_.clock.inSleep = [] { throw std::bad_alloc(); };
  EXPECT_TRUE(watch::OnInsertEvent(record, 1, machine_.platform));
  EXPECT_EQ(trace.Count("Watch - Sleep exception"), 6U);

  record.removeWait = 1;
  machine_.clock = {};
  watch::OnRemoveEvent(record, 1, machine_.platform);
  EXPECT_EQ(machine_.clock.slept.size(), 0U) << "only endings, and nothing to end";
  record.rest = "config";
  const std::size_t opened = trace.Count("Config - Open '" + folder_.Path("system.conf") + "' (r)");
  watch::OnRemoveEvent(record, 1, machine_.platform);
  EXPECT_EQ(machine_.clock.slept.size(), 3U);
  EXPECT_EQ(trace.Count("Config - Open '" + folder_.Path("system.conf") + "' (r)"), opened + 2)
      << "the handler and its gate";
}

TEST_F(EventTable, SimulationWaitsForEitherKindAsAnInsertDoes) {
  Configure("", "1=kill x\n2=close y\n3=\n4=kill z\n");
  watch::CWatchOptions record = Record("");
  record.simulate = "other";
  record.insertWait = 1;
  record.removeWait = 9;
  const TraceCapture trace;
  EXPECT_EQ(watch::SimulateEvent(record, machine_.platform), 0);
  EXPECT_EQ(machine_.clock.slept.size(), 3U) << "an empty entry is an ordinary one";
  EXPECT_TRUE(trace.Has("Watch - Simulate other at 2 failed"));
  EXPECT_TRUE(trace.Has("Watch - Execute insert command: kill z")) << "failures go on";
}

TEST(Command, KeywordsDecideTheResult) {
  const std::tuple<std::string, bool, bool> rows[] = {
      {"open  ", true, true},
      {"set -match cn=x", false, false},
      {"set -registry there", false, true},
      {"application  /bin/true", false, false},
      {"APPLICATION \"/bin/no end", true, true},
      {"application /" + std::string(255, 'p'), false, false},
      {"-lock", true, false},
      {"parallel close " + std::string(249, 'x'), true, true},
      {"parallel close " + std::string(250, 'x'), false, false},
  };
  ScriptedReader card;
  for (const auto& [text, on_insert, on_remove] : rows) {
    EXPECT_EQ(watch::ExecuteCommand(card, {.kind = EventKind::kInsert, .slot = 1}, text), on_insert)
        << text;
    EXPECT_EQ(watch::ExecuteCommand(card, {.kind = EventKind::kRemove, .slot = 1}, text), on_remove)
        << text;
  }
  EXPECT_TRUE(watch::WaitForParallelJobs(15000));
}

TEST(TerminateList, RemovalEndsWhatTheInsertStartedForItsSlot) {
  const pid_t forked = ::fork();
  if (forked == 0) ::_exit(static_cast<int>(::sleep(120)));
  ASSERT_GT(forked, 0) << "the id of no child would mean every process";
  const auto child = static_cast<std::uint64_t>(forked);
  EXPECT_FALSE(runtime::EndProcess((std::uint64_t{1} << 32) + child));
  watch::AddToTerminateList(EventKind::kRemove, 4, child);
  EXPECT_FALSE(watch::IsSlotProcessRunning(4)) << "started on removal";
  for (int entry = 1; entry < 100; ++entry) watch::AddToTerminateList(EventKind::kInsert, 1, child);
  watch::AddToTerminateList(EventKind::kInsert, 4, child);
  watch::AddToTerminateList(EventKind::kInsert, 7, child);
  EXPECT_FALSE(watch::IsSlotProcessRunning(7)) << "more than a hundred entries";
  watch::SweepTerminateList(EventKind::kInsert, 1);
  watch::SweepTerminateList(EventKind::kRemove, 7);
  EXPECT_TRUE(watch::IsSlotProcessRunning(1));

  // With endings alone to run a removal does not wait for anything, but ends what was started.
  const TraceCapture trace;
  Scripted machine;
  watch::CWatchOptions record = Record("close x");
  record.removeWait = 20;
  watch::OnRemoveEvent(record, 1, machine.platform);
  EXPECT_TRUE(machine.clock.slept.empty());
  EXPECT_FALSE(trace.Has("Watch - Execute remove command: close x"));
  EXPECT_EQ(trace.Count("Watch - Process " + std::to_string(child) + " exited"), 99U)
      << "those of other slots are dropped too";
  EXPECT_FALSE(watch::IsSlotProcessRunning(1));
}

/// What the trace tells about slots.
std::string Slots(const TraceCapture& trace) {
  std::string told;
  for (const std::string& line : trace.Lines()) {
    EXPECT_EQ(line.find("4711"), line.npos) << line;
    const bool counts = line.find("onnected") != line.npos || line.find("Logon s") != line.npos;
    if (counts) told += line.substr(std::string_view("Watch - ").size()) + ";";
  }
  return told;
}

/// What a run of one round for each poll tells about slots.
std::string Watch(Scripted&& machine, const char* section, bool sync, std::uint64_t rounds) {
  const TraceCapture trace;
  watch::CWatchOptions record = Record("kill nothing");
  record.section = section;
  record.sync = sync;
  record.roundLimit = rounds;
  watch::RunWatch(record, machine.platform);
  return Slots(trace);
}
std::string Watch(const char* section, bool sync, const std::vector<Poll>& polls) {
  return Watch(Scripted(polls), section, sync, polls.size());
}

TEST(SlotLoop, EventsConnectAndDisconnect) {
  EXPECT_EQ(Watch("Watch", false, {{0, {{2}}}}), "") << "inside a group at start";
  EXPECT_EQ(Watch("Watch", true, {{1, {{1}}}, {1, {{1}}}}), "Connected slot 1;Already connected;");
  EXPECT_EQ(Watch("x -pin 4711", true, {{0, {{1}}}, {4, {}}}),
            "Connected slot 1;Disconnected slot 1;")
      << "the connected token is gone when another slot tells of its own";
  EXPECT_EQ(Watch("Watch", false, {{0, {{1}}}, {4, {{1}, {4}}}, {4, {{1}}}, {1, {}}}),
            "Connected slot 1;Already connected;Disconnected slot 0;")
      << "the other slot's removal forgets the connected one";
  EXPECT_EQ(Watch("Watch", true, {{0, {{1}}}, {4, {{1}, {4}}}, {1, {{4}}}, {4, {}}}),
            "Connected slot 1;Already connected;Disconnected slot 1;")
      << "the card that stayed is not connected by itself";
  EXPECT_EQ(Watch("Watch", false, {{0, {}}, {97, {{97}}}, {95, {}}, {97, {}}}),
            "Disconnected slot 0;Connected slot 97;Disconnected slot 97;")
      << "up to 96 the first slots of groups count";
}

TEST(SlotLoop, UnreadableTokenIsNoInsertWhereItIsToBeRecognized) {
  Scripted machine(std::vector<Poll>{{1, {{1}}}, {1, {{1}}}});
  machine.reader.readable = false;
  machine.clock.inSleep = [&machine] { machine.reader.readable = true; };
  watch::CWatchOptions record = Record("kill nothing");
  record.recognized = true;
  record.roundLimit = 2;
  watch::WatchSlots(record, machine.platform);
  EXPECT_EQ(machine.clock.slept, (std::vector<unsigned>{333, 666})) << "the second round connects";
}

TEST(SlotLoop, LibraryThatComesUpLateLosesNoCard) {
  // The library goes away and comes back with another card in it; nobody tells of either.
  const std::pair<std::uint64_t, const char*> rows[] = {
      {30, "Connected slot 1;"},
      {31, "Connected slot 1;Disconnected slot 1;"},
      {32, "Connected slot 1;Disconnected slot 1;Connected slot 4;"},
  };
  for (const auto& [rounds, told] : rows) {
    Scripted machine(std::vector<Poll>{{1, {{1}}}});
    machine.clock.inSleep = [&machine] {
      if (machine.clock.slept.size() != 5) return;
      machine.reader.initialised = false;
      machine.reader.comesUp = true;
      machine.reader.tokens = {{4}};
    };
    EXPECT_EQ(Watch(std::move(machine), "Watch", true, rounds), told);
  }
}

TEST(SlotLoop, FinalisedLibraryIsInitialisedAndPolledOnceMore) {
  // A card is in slot 1; the library tells of it neither before nor after.
  static int refusals;
  for (const bool comesUp : {true, false}) {
    FakeCard card;
    if (comesUp) card.slots = {{.id = 1}};
    refusals = comesUp ? 1 : 99;
    card.List().C_WaitForSlotEvent = [](auto...) -> CK_RV {
      return refusals-- > 0 ? CKR_CRYPTOKI_NOT_INITIALIZED : CKR_NO_EVENT;
    };
    const FakeModule module(QIXX_FAKE_PLAIN, CKR_OK, &card.List());
    EXPECT_TRUE(pkcs11::Pkcs11().SetLibraryPath(QIXX_FAKE_PLAIN));
    ScriptedClock clock;
    ScriptedUser user;
    watch::ServiceManager manager;
    const watch::Platform platform = {clock, watch::SystemCardReader(), user, manager};
    const TraceCapture trace;
    watch::CWatchOptions record = Record("kill nothing");
    record.roundLimit = 1;
    watch::RunWatch(record, platform);
    EXPECT_EQ(Slots(trace), comesUp ? "Connected slot 1;" : "Disconnected slot 0;");
    EXPECT_EQ(trace.Count("WrapperPkcs11 - Initialize count 1 at initialize"), 2U);
    EXPECT_EQ(trace.Count("Watch - Poll failed 0x00000190"), comesUp ? 0U : 1U);
    pkcs11::Pkcs11().Release();
  }
}

TEST(SlotLoop, CardThatWentWhileTheWatchWasDownIsRemoved) {
  const TemporaryFolder folder;
  const ScopedVariable directory("RUNTIME_DIRECTORY", (folder.Path() + ":/nonexistent").c_str());
  const auto files = [&folder] {
    std::string names;
    for (const auto& file : std::filesystem::directory_iterator(folder.Path())) {
      const std::string name = file.path().filename();
      names += name.substr(0, name.find('~')) + ";";
    }
    return names;
  };
  EXPECT_EQ(Watch("Watch", true, {{0, {}}}), "");
  EXPECT_EQ(Watch("Watch", true, {{1, {{1}}}}), "Connected slot 1;");
  EXPECT_EQ(files(), "card-Watch;") << "kept at the end";
  EXPECT_EQ(Watch("Watch", true, {{4, {{1}}}}), "Connected slot 1;") << "still in";
  EXPECT_EQ(files(), "card-Watch;");
  EXPECT_EQ(Watch("Other", true, {{0, {}}}), "") << "each section has its own";
  EXPECT_EQ(Watch("Watch", true, {{0, {}}, {0, {}}}), "Disconnected slot 0;");
  EXPECT_EQ(files(), "");
  EXPECT_EQ(Watch("Watch", true, {{0, {{1}}}, {1, {}}}), "Connected slot 1;Disconnected slot 1;");
  EXPECT_EQ(files(), "");
  EXPECT_EQ(Watch("Watch", true, {{0, {{1}}}, {4, {{1}}}}), "Connected slot 1;");
  EXPECT_EQ(Watch("Watch", false, {{0, {}}}), "Disconnected slot 0;") << "once";
  EXPECT_EQ(files(), "");

  const std::string odd = "../a b\"%/~";
  const std::string longest(255, '/');
  for (const std::string& section : {odd, longest, longest.substr(1)}) {
    EXPECT_EQ(Watch(section.c_str(), true, {{1, {{1}}}}), "Connected slot 1;");
    EXPECT_EQ(std::ranges::count(files(), ';'), 1);
    EXPECT_EQ(Watch(section.c_str(), true, {{0, {}}}), "Disconnected slot 0;");
  }
  EXPECT_EQ(files(), "");
  EXPECT_EQ(Watch("Watch", true, {{1, {{1}}}}), "Connected slot 1;");
  const std::filesystem::path mark = std::filesystem::directory_iterator(folder.Path())->path();
  std::filesystem::remove(mark);
  std::filesystem::create_symlink("/etc/passwd", mark);
  EXPECT_EQ(Watch("Watch", true, {{0, {}}}), "") << "no file of ours";
  EXPECT_EQ(Watch("Watch", true, {{1, {{1}}}}), "Connected slot 1;") << "nor made one";
  watch::CardMark("Watch", "one command").Set();
  EXPECT_FALSE(watch::CardMark("Watch", "another").IsSet());
  EXPECT_TRUE(watch::CardMark("Watch", "one command").IsSet());

  const ScopedVariable missing("RUNTIME_DIRECTORY", "/nonexistent");
  const TraceCapture trace;
  watch::CardMark("Watch", "").Set();
  EXPECT_TRUE(trace.Has("Watch - Failed to keep 'card-Watch' in '/nonexistent' (2)"));
}

/// In a process of its own, which has no descriptors left in the end.
[[noreturn]] void RemoveWithoutDescriptors(watch::CWatchOptions& record) {
  const rlimit few = {64, 64};
  ::setrlimit(RLIMIT_NOFILE, &few);
  Scripted machine(std::vector<Poll>{{1, {{1}}}, {1, {}}});
  machine.clock.inSleep = [] {
    while (::open("/dev/null", O_RDONLY | O_CLOEXEC) >= 0) continue;
  };
  record.roundLimit = 2;
  const TraceCapture trace;
  watch::WatchSlots(record, machine.platform);
  ::_exit(trace.Has("Watch - Execute remove command: kill y") ? 0 : 1);
}

TEST_F(EventTable, LibraryThatLeaksDescriptorsKeepsNoRemovalFromBeingRun) {
  Configure("", "1=kill y\n");
  watch::CWatchOptions record = Record("config");
  EXPECT_EXIT(RemoveWithoutDescriptors(record), ::testing::ExitedWithCode(0), "");
}

TEST_F(EventTable, RemovalTriesAgainWhatTheSystemHadNoRoomFor) {
  struct Row {
    const char* command;
    int failing;  ///< tries that find no process
    CK_SLOT_ID nextCard;
    std::size_t tries;
    bool nextCounts = true;
  };
  for (const Row row : {Row{"", 3, 0, 4},
                        {"", 99, 0, 5},
                        {"", 99, 1, 2},
                        {"", 99, 1, 5, false},
                        {"", 3, 1, 4, false},
                        {"parallel ", 2, 0, 3}}) {
    SCOPED_TRACE(row.command + std::to_string(row.failing));
    Configure("", "1=" + std::string(row.command) + "/bin/true x\n2=kill x\n");
    Scripted desk(std::vector<Poll>{{1, {{1}}}, {1, {}}, {row.nextCard, {{1}}}});
    watch::CWatchOptions record = Record("config");
    const ScopedVariable marks("RUNTIME_DIRECTORY", folder_.Path().c_str());
    record.match = "cn=ann lee";
    desk.clock.inSleep = [&desk, row] {
      if (desk.clock.slept.size() == 1) forksToFail = row.failing;
      if (desk.clock.slept.size() == 2) desk.reader.matches = row.nextCounts;
    };
    const TraceCapture trace;
    record.sync = true;
    record.roundLimit = 6;
    watch::WatchSlots(record, desk.platform);
    EXPECT_TRUE(watch::WaitForParallelJobs(15000));
    forksToFail = 0;
    EXPECT_EQ(trace.Count("Watch - Execute remove command: /bin/true x"), row.tries);
    EXPECT_EQ(trace.Count("Watch - Execute remove command: kill x"), 1U);
    EXPECT_EQ(trace.Count("Watch - Disconnected slot 1"), 1U);
    const bool isMarked = std::filesystem::remove(folder_.Path("card-Watch"));
    // A job may still run in front of its next try.
    EXPECT_TRUE(*row.command != 0 || isMarked == (row.nextCard != 0 || row.failing == 99));
  }
}

/// A folder on a small disk of its own, which only this thread and its children see.
class SmallDisk {
 public:
  explicit SmallDisk(const std::string& folder) : folder_(folder) {
    isThere = ::unshare(CLONE_NEWNS) == 0 &&
              ::mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) == 0 &&
              ::mount("none", folder.c_str(), "tmpfs", 0, "size=64k") == 0;
  }
  ~SmallDisk() {
    if (isThere) ::umount2(folder_.c_str(), MNT_DETACH);
  }
  void Fill() const { std::ofstream(folder_ + "/filler") << std::string(100'000, 'x'); }
  void MakeRoom() const { std::filesystem::remove(folder_ + "/filler"); }

  bool isThere;

 private:
  std::string folder_;
};

TEST_F(EventTable, RemovalTriesAgainToClearAFileOnAFullDisk) {
  std::filesystem::create_directories(folder_.Path("disk"));
  const SmallDisk disk(folder_.Path("disk"));
  if (!disk.isThere) GTEST_SKIP() << "NOT TESTED: disks of one's own are not allowed";
  const std::string file = folder_.Path("disk/a.conf");
  const std::string values = "[S]\nUsername=ann\n";
  Configure("", "1=set -config " + file + "\n2=kill x\n");
  watch::CWatchOptions section = Record("config");
  watch::CWatchOptions keyword = Record("");
  keyword.program = "/bin/true";
  keyword.configFile = file;
  for (watch::CWatchOptions record : {section, keyword}) {
    SCOPED_TRACE(record.program);
    std::ofstream(file) << values;
    Scripted desk(std::vector<Poll>{{1, {{1}}}, {1, {}}});
    std::string whileFull;
    desk.clock.inSleep = [&] {
      if (desk.clock.slept.size() == 1) disk.Fill();
      if (desk.clock.slept.size() == 4)
        whileFull = TemporaryFolder::ReadFile(file), disk.MakeRoom();
    };
    const TraceCapture trace;
    record.sync = true;
    record.roundLimit = 7;
    watch::WatchSlots(record, desk.platform);
    EXPECT_EQ(whileFull, values);
    EXPECT_EQ(TemporaryFolder::ReadFile(file).find("ann"), std::string::npos);
    EXPECT_EQ(trace.Count("Helper - Failed to write '" + file + "'") +
                  trace.Count("Helper - Failed to write '" + file + ".org'"),
              3U)
        << "once in each round, until there was room";
  }
  EXPECT_EQ(::access((file + ".org").c_str(), F_OK), 0);
}

TEST_F(EventTable, RemovalWaitsAWhileForAConfigurationThatIsWritten) {
  struct Row {
    bool isMissing;
    std::size_t back;  ///< the round that finds the configuration again; the second one removes
    CK_SLOT_ID nextCard;
    std::uint64_t wait;
    std::size_t runs;
  };
  for (const Row row : {Row{true, 3, 0, 0, 1},
                        {false, 3, 0, 0, 1},
                        {false, 3, 1, 0, 1},
                        {false, 11, 0, 0, 1},
                        {false, 12, 0, 0, 0},
                        {false, 4, 1, 0, 0},
                        {false, 3, 0, 1, 1}}) {
    SCOPED_TRACE(row.back);
    Scripted desk(std::vector<Poll>{{1, {{1}}}, {1, {}}, {row.nextCard, {{1}}}, {0, {{1}}}});
    desk.clock.inSleep = [&] {
      // A file may also be no more than the mark of an encoding.
      if (desk.reader.taken == 1)
        folder_.Write("system.conf", row.back == 12 ? "\xEF\xBB\xBF" : "");
      if (desk.reader.taken == 1 && row.isMissing) {
        std::filesystem::remove(folder_.Path("system.conf"));
      }
      if (desk.reader.taken + 1 == row.back) Configure("", "1=set -registry x\n");
    };
    const TraceCapture trace;
    watch::CWatchOptions record = Record("config");
    record.sync = true;
    record.removeWait = row.wait;
    record.roundLimit = 20;
    watch::WatchSlots(record, desk.platform);
    EXPECT_EQ(trace.Count("Watch - Execute remove command: set -registry x"), row.runs);
    EXPECT_EQ(trace.Count("Watch - Remove event ..."), 1 + row.runs);
  }
}

TEST_F(EventTable, ExtraWatcherThatDidNotEndByItselfIsStartedAgain) {
  const std::string program = folder_.Write("program", R"(#!/bin/sh
echo "$qixwatchdepth $qixwatchroom $qixwatchlink $*" >> $HOME/started
case "$*" in *Killed) kill -9 $$; esac
exit 3
)");
  std::filesystem::permissions(program, std::filesystem::perms::owner_all);
  const ScopedVariable home("HOME", folder_.Path().c_str());
  const ScopedVariable depth("qixwatchdepth", "2");
  const TraceCapture trace;
  forksToFail = 1;
  watch::StartExtraWatchers("Refused|Killed|Done", program);
  const auto started = [&](const char* name) {
    return trace.Count("Watch - Extra '" + std::string(name) + "' is started again");
  };
  const auto ended = [&] { return trace.Count("Watch - Extra 'Killed' was ended by signal 9"); };
  std::uint64_t round = 0;
  const auto look = [&] {
    for (std::size_t i = 0; i < watch::kMaxExtraWatchers; ++i) {
      runtime::ReapChildren();
      watch::LookAfterExtraWatcher(round++);
    }
  };
  EXPECT_TRUE(Eventually([&] { return look(), started("Killed") == 1; }));
  EXPECT_EQ(ended(), 1U);
  EXPECT_TRUE(Eventually([&] { return look(), ended() == 2; }));
  look();
  EXPECT_EQ(started("Killed"), 1U) << "once a minute";
  EXPECT_EQ(started("Refused"), 1U);
  EXPECT_EQ(started("Done"), 0U);
  std::multiset<std::string> lines;
  std::istringstream file(folder_.Read("started"));
  for (std::string line; std::getline(file, line);) lines.insert(line);
  EXPECT_EQ(lines, (std::multiset<std::string>{"3 10 3 X config Done", "3 10 3 X config Killed",
                                               "3 10 3 X config Killed", "3 9 3 X config Refused"}))
      << "each with its own part of the tree, and its link";
  EXPECT_FALSE(environmentChanged);
  watch::StartExtraWatchers("", program);
}

TEST(SlotLoop, PollsThatFailLoseNoRemoval) {
  struct Row {
    std::size_t gone;   ///< the poll in front of which the card goes
    std::size_t heals;  ///< the first poll that works again; all from the second on fail
    std::size_t seen;   ///< the poll that finds the card gone
  };
  for (const Row row : {Row{2, 99, 4}, {4, 99, 4}, {5, 99, 7}, {7, 99, 7}, {2, 3, 3}}) {
    Scripted machine(std::vector<Poll>{{1, {{1}}}});
    ScriptedReader& reader = machine.reader;
    reader.inPoll = [&reader, row](watch::PolledEvent& polled) {
      if (reader.taken >= row.gone) reader.tokens.clear();
      if (reader.taken > 1 && reader.taken < row.heals) polled.failure = CKR_GENERAL_ERROR;
    };
    std::size_t seen = 0;
    machine.clock.inSleep = [&] {
      if (seen == 0 && machine.clock.slept.back() == 333) seen = reader.taken;
    };
    const TraceCapture trace;
    watch::CWatchOptions record = Record("kill nothing");
    record.roundLimit = 9;
    watch::WatchSlots(record, machine.platform);
    EXPECT_EQ(seen, row.seen) << row.gone << " " << row.heals;
    EXPECT_EQ(trace.Count("Watch - Disconnected slot 1"), 1U);
    EXPECT_EQ(trace.Count("Watch - Poll failed 0x00000005"), 1U);
  }
  Scripted machine(std::vector<Poll>{{1, {{1}}}, {4, {{4}}}});
  machine.reader.inPoll = [&machine](watch::PolledEvent& polled) {
    if (machine.reader.taken == 2) polled.failure = CKR_GENERAL_ERROR;
  };
  EXPECT_EQ(Watch(std::move(machine), "Watch", true, 6),
            "Connected slot 1;Already connected;Disconnected slot 1;Connected slot 4;")
      << "the first poll that works tells of another slot";
}

TEST(SlotLoop, CardThatNoPollToldOfIsMissedWhenItGoes) {
  Scripted machine(std::vector<Poll>{{0, {{1}}}, {0, {}}});
  EXPECT_EQ(Watch(std::move(machine), "Watch", true, 3), "Connected slot 1;Disconnected slot 1;");
}

TEST(SlotLoop, CardThatAFailingLibraryHidesIsConnectedAgain) {
  Scripted machine(std::vector<Poll>{{1, {{1}}}});
  ScriptedReader& reader = machine.reader;
  reader.inPoll = [&reader](watch::PolledEvent& polled) {
    const bool fails = reader.taken > 1 && reader.taken < 6;
    if (fails) polled.failure = CKR_DEVICE_ERROR;
    reader.tokens.clear();
    if (!fails) reader.tokens = {{1}};
  };
  const TraceCapture trace;
  watch::CWatchOptions record = Record("kill nothing");
  record.roundLimit = 8;
  watch::WatchSlots(record, machine.platform);
  EXPECT_EQ(Slots(trace), "Connected slot 1;Disconnected slot 1;Connected slot 1;");
}

TEST(SlotLoop, DescriptorOfTheLibraryEndsPausesEarly) {
  Scripted machine(std::vector<Poll>{{0, {}}, {1, {{1}}}, {0, {{1}}}});
  machine.reader.descriptor = 3;
  machine.clock.inSleep = [&machine] { machine.clock.readable = machine.reader.taken < 3; };
  watch::CWatchOptions record = Record("kill nothing");
  record.roundLimit = 4;
  watch::WatchSlots(record, machine.platform);
  EXPECT_EQ(machine.clock.endedEarly, 2U);
  EXPECT_EQ(machine.clock.slept, (std::vector<unsigned>{333, 666, 666, 666}));
}

TEST(SlotLoop, DescriptorThatStaysReadableCostsNothing) {
  constexpr std::size_t kRounds = 340;
  struct Row {
    std::function<void(Scripted&)> script;
    std::size_t early;
    const char* why;
  };
  const Row rows[] = {
      {[](Scripted&) {}, 1, "nothing to tell"},
      {[](Scripted& machine) {
         machine.reader.inPoll = [](auto& polled) { polled.failure = CKR_DEVICE_ERROR; };
       },
       1, "no poll works"},
      {[](Scripted& machine) { machine.reader.inPoll = [](auto& polled) { polled.slot = 4; }; },
       kRounds / 17 * 16, "events without end: one pause in 17 is whole"},
      {[](Scripted& machine) {
         machine.clock.inSleep = [&machine] {
           machine.clock.readable = machine.clock.slept.size() % 20 != 0;
         };
       },
       kRounds / 20, "it is trusted again once it was not readable"},
  };
  for (const auto& [script, early, why] : rows) {
    Scripted machine;
    machine.reader.descriptor = 3;
    machine.clock.readable = true;
    script(machine);
    watch::CWatchOptions record = Record("kill nothing");
    record.sync = true;
    record.roundLimit = kRounds;
    watch::WatchSlots(record, machine.platform);
    EXPECT_EQ(machine.clock.slept.size(), kRounds);
    EXPECT_EQ(machine.clock.endedEarly, early) << why;
  }
}

TEST(SlotLoop, LogonVariantFollowsTheUsersCard) {
  const Token hers = {4, "ann", "hers"};
  // The fourth round takes an event of another slot, one of a card that stayed and one of a card
  // that was swapped.
  const std::vector<Poll> polls = {
      {0, {{1}}}, {4, {{1}, hers}}, {1, {{1}, hers}}, {4, {{1}, hers}}, {4, {{1}, {4}}}};
  EXPECT_EQ(Watch("LOGON", false, polls), "") << "nobody is logged on";
  Scripted machine(polls);
  machine.user.name = "ann";
  machine.clock.inSleep = [&machine] {
    machine.user.record = watch::LogonRecord{{'a', 'n', 'n'}, {'h', 'e', 'r', 's'}};
  };
  EXPECT_EQ(Watch(std::move(machine), "Logon", false, polls.size()),
            "Logon slot not found;Logon slot 4 inserted;Logon slot 4 removed;Logon slot not found;")
      << "the first round has no answer";
}

}  // namespace
}  // namespace qixx::testing
