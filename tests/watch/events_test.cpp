// The commands of an event: where they come from, what they come to, what a removal ends; and the
// loop that meets the events.
#include <unistd.h>

#include "runtime/files.h"
#include "tests/support/environment.h"
#include "tests/support/fake_card.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"
#include "watch/command.h"
#include "watch/credentials.h"
#include "watch/event_table.h"
#include "watch/slot_loop.h"
#include "watch/terminate_list.h"

namespace qixx::testing {
namespace {

watch::CWatchOptions Record(const std::string& rest) {
  watch::CWatchOptions record{};
  runtime::CopyTextCut(record.rest, rest);
  runtime::CopyTextCut(record.section, "Watch");
  return record;
}

class EventTable : public ::testing::Test {
 protected:
  EventTable() { runtime::InitProductIdentity(); }

  void Configure(const std::string& insert, const std::string& remove) const {
    folder.Write("system.conf", "[Watch Insert]\n" + insert + "[Watch Remove]\n" + remove);
  }
  TemporaryFolder folder;
  ScopedVariable path{"qixconfigglobal", folder.Path("system.conf").c_str()};
};

TEST_F(EventTable, NamesAndCommandsKeepToTheirAreas) {
  char section[watch::kEventSectionSize];
  EXPECT_TRUE(watch::BuildEventSection(true, std::string(50, 's'), section));
  EXPECT_FALSE(watch::BuildEventSection(true, std::string(51, 's'), section));
  const std::string text = "kill " + std::string(600, 'x');
  Configure("1=" + text + "\n", "1=" + text + "\n");
  watch::CWatchOptions record = Record("Config");
  const TraceCapture trace;
  EXPECT_TRUE(watch::OnInsertEvent(record, 1));
  EXPECT_TRUE(trace.Has("Watch - Execute insert command: " + text.substr(0, 511)));
  watch::OnRemoveEvent(record, 1);
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
    EXPECT_EQ(watch::HasOrdinaryRemoveCommand(config, "Watch", true), on_insert);
    EXPECT_EQ(watch::IsOrdinaryCommand(config, "Watch", "configured elsewhere"), on_remove);
  }
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
  };
  for (const auto& [text, on_insert, on_remove] : rows) {
    EXPECT_EQ(watch::ExecuteCommand(1, true, text.c_str(), 0, true, false), on_insert) << text;
    EXPECT_EQ(watch::ExecuteCommand(1, false, text.c_str(), 0, true, false), on_remove) << text;
  }
  EXPECT_TRUE(watch::WaitForParallelJobs(60000));
}

TEST(TerminateList, RemovalEndsWhatTheInsertStartedForItsSlot) {
  const pid_t forked = ::fork();
  if (forked == 0) ::_exit(static_cast<int>(::sleep(120)));
  ASSERT_GT(forked, 0) << "the id of no child would mean every process";
  const auto child = static_cast<std::uint64_t>(forked);
  EXPECT_FALSE(watch::EndProcess((std::uint64_t{1} << 32) + child));
  watch::AddToTerminateList(false, 4, child);
  EXPECT_FALSE(watch::IsSlotProcessRunning(4)) << "started on removal";
  for (int entry = 1; entry < 100; ++entry) watch::AddToTerminateList(true, 1, child);
  watch::AddToTerminateList(true, 4, child);
  watch::AddToTerminateList(true, 7, child);
  EXPECT_FALSE(watch::IsSlotProcessRunning(7)) << "more than a hundred entries";
  watch::SweepTerminateList(true, 1);
  watch::SweepTerminateList(false, 7);
  EXPECT_TRUE(watch::IsSlotProcessRunning(1));

  // With endings alone to run a removal does not wait for anything, but ends what was started.
  const TraceCapture trace;
  watch::CWatchOptions record = Record("close x");
  record.removeWait = 20;
  watch::OnRemoveEvent(record, 1);
  EXPECT_FALSE(trace.Has("Watch - Execute remove command: close x"));
  EXPECT_EQ(trace.Count("Watch - Process " + std::to_string(child) + " exited"), 99U)
      << "those of other slots are dropped too";
  EXPECT_FALSE(watch::IsSlotProcessRunning(1));
}

/// The slot of a poll's event (0 for none), and the slots with a token from then on.
struct Poll {
  CK_SLOT_ID event;
  std::vector<FakeSlot> slots;
};
std::vector<Poll> script;
std::size_t polls;

CK_RV TakeScriptedEvent(CK_FLAGS flags, CK_SLOT_ID* slot, void* /*reserved*/) {
  EXPECT_EQ(flags, CKF_DONT_BLOCK);
  if (polls == script.size()) return CKR_NO_EVENT;
  FakeCard::current->slots = script[polls].slots;
  *slot = script[polls++].event;
  return *slot == 0 ? CKR_NO_EVENT : CKR_OK;
}

/// What a run of one round for each poll tells about slots. The first poll's tokens are in before.
std::string Watch(const char* section, bool sync, const std::vector<Poll>& events) {
  FakeCard card;
  const FakeModule module(QIXX_FAKE_PLAIN, CKR_OK, &card.List());
  card.List().C_WaitForSlotEvent = &TakeScriptedEvent;
  EXPECT_TRUE(pkcs11::Pkcs11().SetLibraryPath(QIXX_FAKE_PLAIN));
  script = events;
  polls = 0;
  card.slots = script.front().slots;

  const TraceCapture trace;
  watch::CWatchOptions record{};
  runtime::CopyTextCut(record.rest, "kill nothing");
  runtime::CopyTextCut(record.section, section);
  record.sync = sync;
  record.roundLimit = script.size();
  watch::RunWatch(record);
  pkcs11::Pkcs11().Release();
  std::string told;
  for (const std::string& line : trace.Lines()) {
    EXPECT_EQ(line.find("4711"), line.npos) << line;
    const bool counts = line.find("onnected") != line.npos || line.find("Logon s") != line.npos;
    if (counts) told += line.substr(std::string_view("Watch - ").size()) + ";";
  }
  return told;
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
}

TEST(SlotLoop, LogonVariantFollowsTheUsersCard) {
  const FakeSlot hers = {.id = 4, .description = "ann", .objects = {CertificateObject("hers")}};
  // The fourth round takes an event of another slot, one of a card that stayed and one of a card
  // that was swapped.
  const std::vector<Poll> events = {
      {0, {{1}}}, {4, {{1}, hers}}, {1, {{1}, hers}}, {4, {{1}, hers}}, {4, {{1}, {4}}}};
  EXPECT_EQ(Watch("LOGON", false, events), "") << "nobody is logged on";
  const watch::LogonQueries queries = {
      [](std::span<char> name) { return runtime::CopyTextCut(name, "ann") != 0; },
      [](const char* user, auto identity, auto certificate, std::size_t& length) {
        length = std::string_view("hers").copy(reinterpret_cast<char*>(certificate.data()), 4);
        std::string_view(user).copy(identity.data(), identity.size());
        return polls != 0;
      }};
  watch::SetLogonQueries(&queries);
  EXPECT_EQ(Watch("Logon", false, events),
            "Logon slot not found;Logon slot 4 inserted;Logon slot 4 removed;Logon slot not found;")
      << "the first round has no answer";
  watch::SetLogonQueries(nullptr);
}

}  // namespace
}  // namespace qixx::testing
