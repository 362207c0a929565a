// The commands of an event: where they come from, what they come to, what a removal ends; and the
// loop that meets the events.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <new>

#include "runtime/children.h"
#include "runtime/descriptor.h"
#include "runtime/product.h"
#include "tests/support/environment.h"
#include "tests/support/eventually.h"
#include "tests/support/fake_card.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"
#include "tests/watch/scripted.h"
#include "watch/card_mark.h"
#include "watch/command.h"
#include "watch/event_handlers.h"
#include "watch/event_table.h"
#include "watch/extra_watchers.h"
#include "watch/running_jobs.h"
#include "watch/slot_loop.h"
#include "watch/stop.h"
#include "watch/terminate_list.h"

namespace {

/// So many processes the system has no room for, and so many new files no disk.
std::atomic<int> forksToFail{0};
std::atomic<int> syncsToFail{0};
void (*inSync)() = nullptr;

}  // namespace

// In place of the C library's.
extern "C" pid_t fork() noexcept {
  if (forksToFail <= 0) return reinterpret_cast<pid_t (*)()>(::dlsym(RTLD_NEXT, "fork"))();
  --forksToFail;
  errno = EAGAIN;
  return -1;
}
extern "C" int fsync(int /*file*/) {
  if (inSync != nullptr) inSync();
  if (syncsToFail <= 0) return 0;
  --syncsToFail;
  errno = ENOSPC;
  return -1;
}

namespace qixx::testing {
namespace {

namespace fs = std::filesystem;
using watch::EventKind;

const Polls kCard = {{1, {{1}}}};
const Polls kCardThatGoes = {{1, {{1}}}, {1, {}}};

/// One run of the loop, and what it traced.
struct LoopRun : TraceCapture {
  LoopRun(const Scripted& machine, watch::CWatchOptions record) {
    watch::RunWatch(record, machine.platform);
  }
  /// About slots.
  [[nodiscard]] std::string Slots() const {
    std::string told;
    for (const std::string& line : Lines()) {
      EXPECT_EQ(line.find("4711"), line.npos) << line;
      const bool counts = line.find("onnected") != line.npos;
      if (counts) told += line.substr(std::string_view("Watch - ").size()) + ";";
    }
    return told;
  }
};

/// A run of one round for each poll.
std::string Watch(bool sync, const Polls& polls, const char* section = "Watch") {
  watch::CWatchOptions record = Record("kill nothing", polls.size(), sync);
  record.section = section;
  return LoopRun(Scripted(polls), record).Slots();
}

class EventTable : public ::testing::Test {
 protected:
  EventTable() { runtime::InitProductIdentity(); }

  void Configure(const std::string& insert, const std::string& remove) const {
    folder_.Write("system.conf", "[Watch Insert]\n" + insert + "[Watch Remove]\n" + remove);
  }
  TemporaryFolder folder_;
  ScopedVariable path_{"qixconfigglobal", folder_.Path("system.conf").c_str()};
  Scripted machine_{AnnsCard()};
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
  watch::OnRemoveEvent(record, 1, machine_.platform);
  EXPECT_TRUE(trace.Has("Watch - Execute insert command: " + text.substr(0, 511)));
  EXPECT_TRUE(trace.Has("Watch - Execute remove command: " + text.substr(0, 255)));
}

TEST_F(EventTable, RemovalWaitsForMoreThanEndings) {
  // Whether there is anything to run, and how often it sleeps.
  const std::tuple<const char*, const char*, bool, std::size_t> rows[] = {
      {"1=kill x\n2=close x\n", "1=KILL x\n2=Close x\n4=/bin/true\n", true, 0},
      {"", "1=config\n2=configure\n3=/bin/true\n", true, 3},
      {"2=/bin/true\n", "2=/bin/true\n", false, 0},
  };
  for (const auto& [insert, remove, any, sleeps] : rows) {
    SCOPED_TRACE(remove);
    Configure(insert, remove);
    Scripted machine;
    machine.clock.inSleep = [] { throw std::bad_alloc(); };
    watch::CWatchOptions record = Record("config");
    record.removeWait = 1;
    EXPECT_EQ(watch::HasEventCommands(record), any) << "the first entries alone tell";
    watch::OnRemoveEvent(record, 1, machine.platform);
    EXPECT_EQ(machine.clock.slept.size(), sleeps) << "also without memory";
  }
}

TEST_F(EventTable, GateOfAnInsertAsksForTheCardThreeTimesASecond) {
  // The sleep in which the card is pulled.
  for (const std::size_t pulled : {0U, 2U}) {
    Scripted machine(AnnsCard());
    machine.clock.inSleep = [&machine, pulled] {
      if (machine.clock.slept.size() == pulled) machine.reader.tokens.clear();
    };
    watch::CWatchOptions record = Record("kill x");
    record.match = "cn=ann lee";
    record.insertWait = 2;
    const TraceCapture trace;
    EXPECT_EQ(watch::OnInsertEvent(record, 1, machine.platform), pulled == 0);
    EXPECT_EQ(machine.clock.slept, std::vector<unsigned>(pulled == 0 ? 6 : 2, 333));
    EXPECT_EQ(trace.Has("Watch - Execute insert command: kill x"), pulled == 0);
  }
}

TEST(Command, KeywordsDecideTheResult) {
  const std::tuple<std::string, bool, bool> rows[] = {
      {"open  ", true, true},
      {"set -registry there", false, true},
      {"application  /bin/true", false, false},
      {"application /" + std::string(255, 'p'), false, false},
      {"parallel close " + std::string(249, 'x'), true, true},
      {"parallel close " + std::string(250, 'x'), false, false},
  };
  ScriptedReader card;
  for (const auto& [text, on_insert, on_remove] : rows) {
    EXPECT_EQ(watch::ExecuteCommand(card, {EventKind::kInsert, 1}, text), on_insert) << text;
    EXPECT_EQ(watch::ExecuteCommand(card, {EventKind::kRemove, 1}, text), on_remove) << text;
  }
  EXPECT_TRUE(watch::WaitForJobs(15000));
}

TEST(TerminateList, RemovalEndsWhatTheInsertStartedForItsSlot) {
  const pid_t forked = ::fork();
  if (forked == 0) ::_exit(static_cast<int>(::sleep(120)));
  ASSERT_GT(forked, 0) << "the id of no child would mean every process";
  const auto child = static_cast<std::uint64_t>(forked);
  watch::AddToTerminateList(EventKind::kRemove, 4, child);
  EXPECT_FALSE(watch::IsSlotProcessRunning(4)) << "started on removal";
  for (int entry = 1; entry < 100; ++entry) watch::AddToTerminateList(EventKind::kInsert, 1, child);
  watch::AddToTerminateList(EventKind::kInsert, 4, child);
  watch::AddToTerminateList(EventKind::kInsert, 7, child);
  EXPECT_FALSE(watch::IsSlotProcessRunning(7)) << "more than a hundred entries";
  watch::SweepTerminateList(EventKind::kInsert, 1);
  watch::SweepTerminateList(EventKind::kRemove, 7);
  EXPECT_TRUE(watch::IsSlotProcessRunning(1));
  Scripted machine;
  watch::CWatchOptions record = Record("close x");
  watch::OnRemoveEvent(record, 1, machine.platform);
  EXPECT_FALSE(watch::IsSlotProcessRunning(1));
}

TEST(SlotLoop, EventsConnectAndDisconnect) {
  const std::tuple<const char*, bool, Polls, const char*> rows[] = {
      {"told of twice", true, {{1, {{1}}}, {1, {{1}}}}, "Connected slot 1;Already connected;"},
      {"no poll told of it", true, {{0, {{1}}}, {0, {}}}, "Connected slot 1;Disconnected slot 1;"},
      {"another slot's removal forgets the connected one",
       false,
       {{0, {{1}}}, {4, {{1}, {4}}}, {4, {{1}}}, {1, {}}},
       "Connected slot 1;Already connected;Disconnected slot 0;"},
      {"the card that stayed is not connected by itself",
       true,
       {{0, {{1}}}, {4, {{1}, {4}}}, {1, {{4}}}, {4, {}}},
       "Connected slot 1;Already connected;Disconnected slot 1;"},
  };
  for (const auto& [why, sync, polls, told] : rows) {
    EXPECT_EQ(Watch(sync, polls, "x -pin 4711"), told) << why;
  }
}

TEST(SlotLoop, LibraryThatComesUpLateLosesNoCard) {
  // The library goes away and comes back with another card in it; nobody tells of either.
  Scripted machine(kCard);
  machine.clock.inSleep = [&machine] {
    if (machine.clock.slept.size() != 5) return;
    machine.reader.initialised = false;
    machine.reader.tokens = {{4}};
  };
  EXPECT_EQ(LoopRun(machine, Record("kill nothing", 32)).Slots(),
            "Connected slot 1;Disconnected slot 1;Connected slot 4;");
}

/// In a process of its own, whose library wants the signals for itself.
[[noreturn]] void StopInSpiteOfTheLibrary() {
  watch::InstallStopHandlers();
  FakeCard card;
  card.List().C_Initialize = [](auto...) -> CK_RV {
    ::signal(SIGTERM, SIG_IGN);
    sigset_t all;
    ::sigfillset(&all);
    ::sigprocmask(SIG_BLOCK, &all, nullptr);
    return CKR_OK;
  };
  const FakeModule module(QIXX_FAKE_PLAIN, CKR_OK, &card.List());
  pkcs11::Pkcs11().SetLibraryPath(QIXX_FAKE_PLAIN);
  watch::SystemCardReader().Initialise();
  ::raise(SIGTERM);
  ::_exit(watch::StopRequested() ? 0 : 1);
}

TEST(SlotLoop, LibraryThatTakesTheSignalsKeepsTheServiceFromNoEnd) {
  EXPECT_EXIT(StopInSpiteOfTheLibrary(), ::testing::ExitedWithCode(0), "");
}

TEST(SlotLoop, FinalisedLibraryIsInitialisedAndPolledOnceMore) {
  // It tells of its card neither before nor after.
  FakeCard card;
  card.slots = {{.id = 1}};
  static int refusals;
  refusals = 1;
  card.List().C_WaitForSlotEvent = [](auto...) -> CK_RV {
    return refusals-- > 0 ? CKR_CRYPTOKI_NOT_INITIALIZED : CKR_NO_EVENT;
  };
  const FakeModule module(QIXX_FAKE_PLAIN, CKR_OK, &card.List());
  EXPECT_TRUE(pkcs11::Pkcs11().SetLibraryPath(QIXX_FAKE_PLAIN));
  Scripted desk;
  watch::CWatchOptions record = Record("kill nothing", 1, false);
  const TraceCapture trace;
  watch::RunWatch(record, {desk.clock, watch::SystemCardReader(), desk.user, desk.manager});
  EXPECT_TRUE(trace.Has("Watch - Connected slot 1"));
  EXPECT_EQ(trace.Count("WrapperPkcs11 - Initialize count 1 at initialize"), 2U);
  pkcs11::Pkcs11().Release();
}

TEST(SlotLoop, CardThatWentWhileTheWatchWasDownIsRemoved) {
  const TemporaryFolder folder;
  const ScopedVariable directory("RUNTIME_DIRECTORY", (folder.Path() + ":/nonexistent").c_str());
  const std::tuple<const char*, bool, Polls, const char*, int> runs[] = {
      {"Watch", true, {{0, {}}}, "", 0},
      {"Watch", true, {{1, {{1}}}}, "Connected slot 1;", 1},
      {"Other", true, {{0, {}}}, "", 1},
      {"Watch", true, {{0, {}}, {0, {}}}, "Disconnected slot 0;", 0},
      {"Watch", true, {{0, {{1}}}, {1, {}}}, "Connected slot 1;Disconnected slot 1;", 0},
      {"Watch", true, {{0, {{1}}}, {4, {{1}}}}, "Connected slot 1;", 1},
      {"Watch", false, {{0, {}}}, "Disconnected slot 0;", 0},
      {"../a b\"%/~", true, {{1, {{1}}}}, "Connected slot 1;", 1},
  };
  for (const auto& [section, sync, polls, told, marks] : runs) {
    EXPECT_EQ(Watch(sync, polls, section), told) << section;
    const fs::directory_iterator files(folder.Path());
    EXPECT_EQ(std::distance(begin(files), end(files)), marks) << section;
  }
  EXPECT_EQ(Watch(true, kCard), "Connected slot 1;");
  watch::CWatchOptions record = Record("kill nothing");
  record.recognized = true;
  Scripted desk(Polls{{0, {{1}}}});
  desk.reader.readable = false;
  EXPECT_EQ(LoopRun(desk, record).Slots(), "Disconnected slot 0;") << "for an unreadable one";
  fs::create_symlink("/etc/passwd", folder.Path("card-Watch"));
  EXPECT_EQ(Watch(true, {{0, {}}}), "") << "no file of ours";
  ASSERT_EQ(::mkfifo(folder.Path("card-Pipe").c_str(), 0600), 0);
  const runtime::Descriptor reader(::open(folder.Path("card-Pipe").c_str(), O_RDONLY | O_NONBLOCK));
  fs::create_symlink("made", folder.Path("card-Link"));
  const TraceCapture trace;
  watch::CardMark("Link", "").Set();
  EXPECT_FALSE(fs::exists(folder.Path("made")));
  watch::CardMark("Pipe", "").Set();
  EXPECT_TRUE(trace.Has("Watch - Failed to keep 'card-Pipe' in '" + folder.Path() + "' (17)"));
  watch::CardMark("Watch", "one command").Set();
  EXPECT_FALSE(watch::CardMark("Watch", "another").IsSet());
  EXPECT_TRUE(watch::CardMark("Watch", "one command").IsSet());
}

int OpenOne() {
  return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

/// In a process of its own, whose library does that with descriptors; the answer is the last one
/// that is its own.
[[noreturn]] void RemoveBehind(int (*meddle)()) {
  Scripted machine(kCardThatGoes);
  int last = 0;
  machine.clock.inSleep = [&] { last = last == 0 ? meddle() : last; };
  const LoopRun run(machine, Record("config", 2));
  while (last > 2 && ::close(last) == 0) --last;
  ::_exit(run.Has("Watch - Execute remove command: kill y") ? last : 1);
}

TEST_F(EventTable, LibraryThatLeaksDescriptorsOrClosesThemKeepsNoRemovalFromBeingRun) {
  Configure("", "1=kill y\n");
  const auto leak = [] {
    const rlimit few = {64, 64};
    ::setrlimit(RLIMIT_NOFILE, &few);
    while (OpenOne() >= 0) continue;
    return 2;
  };
  const auto close = [] {
    ::closefrom(3);
    while (OpenOne() < 40) continue;
    return 40;
  };
  EXPECT_EXIT(RemoveBehind(leak), ::testing::ExitedWithCode(2), "");
  EXPECT_EXIT(RemoveBehind(close), ::testing::ExitedWithCode(2), "") << "all others are open";
}

TEST_F(EventTable, RemovalTriesAgainWhatTheSystemHadNoRoomFor) {
  const ScopedVariable marks("RUNTIME_DIRECTORY", folder_.Path().c_str());
  const std::string set = "set -config " + folder_.Path("a.conf");
  // The tries that find no process, or no room on the disk; the next card, whether it counts, and
  // what an insertion runs.
  const std::tuple<std::string, int, CK_SLOT_ID, bool, std::string, std::size_t> rows[] = {
      {"/bin/true x", 3, 0, true, "", 4},
      {"/bin/true x", 99, 0, true, "", 5},
      {"/bin/true x", 99, 1, true, "", 2},
      {"/bin/true x", 99, 1, true, "1=/bin/true y\n", 5},
      {"/bin/true x", 99, 1, false, "", 5},
      {set, 3, 0, true, "", 4},
      {"parallel /bin/true x", 2, 0, true, "", 3},
  };
  for (const auto& [command, failing, nextCard, nextCounts, insert, tries] : rows) {
    SCOPED_TRACE(command + std::to_string(failing));
    Configure(insert, "1=" + command + "\n2=kill x\n");
    folder_.Write("a.conf", "[S]\nUsername=ann\n");
    Scripted desk(Polls{{1, {{1}}}, {1, {}}, {nextCard, {{1}}}});
    desk.clock.inSleep = [&desk, fails = failing, counts = nextCounts] {
      if (desk.clock.slept.size() == 1) forksToFail = syncsToFail = fails;
      if (desk.clock.slept.size() == 2) desk.reader.matches = counts;
    };
    watch::CWatchOptions record = Record("config", 6);
    record.match = "cn=ann lee";
    const LoopRun run(desk, record);
    EXPECT_TRUE(watch::WaitForJobs(15000));
    forksToFail = syncsToFail = 0;
    const bool isParallel = command.starts_with("parallel ");
    const std::string executed = command.substr(isParallel ? 9 : 0);
    EXPECT_EQ(run.Count("Watch - Execute remove command: " + executed), tries);
    EXPECT_EQ(run.Count("Watch - Execute remove command: kill x"), 1U);
    EXPECT_EQ(run.Count("Watch - Disconnected slot 1"), 1U);
    EXPECT_EQ(folder_.Read("a.conf") == "[S]\nUsername=\nDomain=\n", command == set);
    // A job was still running.
    const bool isKept = nextCard != 0 || failing == 99 || isParallel;
    EXPECT_EQ(fs::remove(folder_.Path("card-Watch")), isKept);
  }
}

/// In a process of its own, which is stopped while the list runs.
[[noreturn]] void StopDuringAList() {
  watch::InstallStopHandlers();
  forksToFail = 99;
  inSync = [] {
    inSync = nullptr;
    ::raise(SIGTERM);
    EXPECT_TRUE(Eventually([] { return watch::RunningJobs() == 1; })) << "this set";
  };
  Scripted desk(kCardThatGoes);
  const LoopRun run(desk, Record("config", 9));
  ::_exit(run.Has("Watch - Execute remove command: /bin/true x") ? 0 : 1);
}

/// Likewise, while the removal waits.
[[noreturn]] void StopDuringTheWait() {
  watch::InstallStopHandlers();
  Scripted desk(kCardThatGoes);
  desk.clock.inSleep = [&desk] {
    if (desk.reader.taken == 2 && !desk.clock.stop) desk.clock.stop = ::raise(SIGTERM) == 0;
  };
  watch::CWatchOptions record = Record("config", 9);
  record.removeWait = 5;
  const LoopRun run(desk, record);
  ::_exit(run.Count("Watch - Remove event ... done") == 1 ? 0 : 1);
}

TEST_F(EventTable, StopLeavesParallelCommandsAndWaitingRemovalsToTheNextStart) {
  const ScopedVariable marks("RUNTIME_DIRECTORY", folder_.Path().c_str());
  folder_.Write("a.conf", "[S]\nUsername=ann\n");
  Configure("", "1=parallel /bin/true x\n2=set -config " + folder_.Path("a.conf") + "\n");
  EXPECT_EXIT(StopDuringAList(), ::testing::ExitedWithCode(0), "");
  EXPECT_TRUE(fs::remove(folder_.Path("card-Watch")));
  Configure("", "1=set -registry x\n");
  EXPECT_EXIT(StopDuringTheWait(), ::testing::ExitedWithCode(0), "");
  EXPECT_TRUE(fs::remove(folder_.Path("card-Watch")));
}

TEST_F(EventTable, KeywordFormIsRemovedAgainAsAWholeWhereTheDiskWasFull) {
  watch::CWatchOptions record = Record("", 6);
  record.program = "/bin/true";
  record.configFile = folder_.Write("a.conf", "[S]\nUsername=ann\n");
  Scripted desk(kCardThatGoes);
  desk.clock.inSleep = [&desk] {
    if (desk.clock.slept.size() == 1) syncsToFail = 2;
  };
  const LoopRun run(desk, record);
  syncsToFail = 0;
  EXPECT_EQ(run.Count("Watch - Remove event ... done"), 3U);
  EXPECT_EQ(folder_.Read("a.conf"), "[S]\nUsername=\nDomain=\n");
}

TEST_F(EventTable, RemovalWaitsAWhileForAConfigurationThatIsWritten) {
  // What the file is meanwhile ("-" for missing; it may also be no more than the mark of an
  // encoding), the round that finds it again and the next card. The second round removes, and looks
  // for the configuration up to the eleventh.
  const std::tuple<std::string, std::size_t, CK_SLOT_ID> rows[] = {
      {"-", 3, 0}, {"", 11, 0}, {"", 4, 1}, {"\xEF\xBB\xBF", 12, 0}};
  for (const auto& [text, back, nextCard] : rows) {
    SCOPED_TRACE(back);
    Configure("", "1=kill x\n");
    Scripted desk(Polls{{1, {{1}}}, {1, {}}, {nextCard, {{1}}}, {0, {{1}}}});
    desk.clock.inSleep = [&, &meanwhile = text, found = back] {
      if (desk.reader.taken == 1) folder_.Write("system.conf", meanwhile);
      if (desk.reader.taken == 1 && meanwhile == "-") fs::remove(folder_.Path("system.conf"));
      if (desk.reader.taken + 1 == found) Configure("", "1=set -registry x\n");
    };
    const LoopRun run(desk, Record("config", 20));
    const std::size_t runs = back > 11 ? 0 : 1;
    EXPECT_EQ(run.Count("Watch - Execute remove command: set -registry x"), runs);
    EXPECT_EQ(run.Count("Watch - Remove event ..."), 1 + runs);
  }
}

TEST_F(EventTable, ExtraWatcherThatDidNotEndByItselfIsStartedAgain) {
  const auto lookAfterThem = [this] {
    const TraceCapture trace;
    const auto told = [&](const std::string& news) { return trace.Count("Watch - Extra " + news); };
    std::uint64_t round = 0;
    const auto look = [&] {
      runtime::ReapChildren();
      for (std::size_t i = 0; i < watch::kMaxExtraWatchers; ++i)
        watch::LookAfterExtraWatcher(round++);
    };
    Configure("", "");
    forksToFail = 1;
    watch::StartExtraWatchers("Refused|Failing", "/bin/false");
    EXPECT_TRUE(Eventually([&] { return look(), told("'Failing' ended with exit code 1") == 2; }));
    EXPECT_TRUE(Eventually([&] { return look(), told("'Refused' ended with exit code 1") == 1; }));
    ::_exit(HasFailure() ? 1 : 0);
  };
  EXPECT_EXIT(lookAfterThem(), ::testing::ExitedWithCode(0), "");
}

TEST(SlotLoop, PollsThatFailLoseNoRemovalAndHideCardsForAWhileOnly) {
  struct Row {
    CK_SLOT_ID event;   ///< of the first poll; from the second one on they fail
    std::size_t heals;  ///< the first poll that works again
    std::size_t gone;   ///< the poll in front of which the card goes
    std::size_t back;   ///< the one in front of which the slot answers again
    std::size_t seen;   ///< the one that finds the card gone
    std::size_t found;  ///< the one that finds it again, 71 when none does
  };
  for (const Row row : {Row{1, 99, 5, 99, 7, 71},
                        {1, 3, 2, 99, 3, 71},
                        {0, 6, 2, 20, 2, 20},
                        {0, 6, 2, 40, 2, 65}}) {
    SCOPED_TRACE(::testing::PrintToString(std::vector{row.heals, row.gone, row.back}));
    Scripted machine(Polls{{row.event, {{1}}}});
    machine.reader.inPoll = [&reader = machine.reader, row](watch::PolledEvent& polled) {
      if (reader.taken > 1 && reader.taken < row.heals) polled.failure = CKR_GENERAL_ERROR;
      reader.tokens.clear();
      if (reader.taken < row.gone || reader.taken >= row.back) reader.tokens = {{1}};
    };
    const LoopRun run(machine, Record("kill nothing", 70));
    // A pause is short while no card is connected.
    std::vector<unsigned> pauses(70, 666);
    for (std::size_t poll = row.seen; poll < row.found; ++poll) pauses[poll - 1] = 333;
    EXPECT_EQ(machine.clock.slept, pauses);
    EXPECT_EQ(run.Count("Watch - Poll failed 0x00000005"), 1U);
  }
}

TEST(SlotLoop, DescriptorThatStaysReadableKeepsTheLoopFromBeingBusy) {
  // The slot of each poll's event, and how many pauses end early; of events without end one in 17
  // is whole.
  for (const auto& [event, early] : {std::pair(CK_SLOT_ID{0}, 1U), {4, 320U}}) {
    Scripted machine(Polls(340, Poll{event, {}}));
    machine.reader.descriptor = 3;
    machine.clock.readable = true;
    const LoopRun run(machine, Record("kill nothing", 340));
    EXPECT_EQ(machine.clock.endedEarly, early);
  }
}

}  // namespace
}  // namespace qixx::testing
