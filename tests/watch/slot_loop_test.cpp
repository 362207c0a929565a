#include "watch/slot_loop.h"

#include "tests/support/fake_card.h"
#include "tests/support/trace_capture.h"
#include "watch/credentials.h"

namespace qixx::testing {
namespace {

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
  EXPECT_TRUE(Pkcs11().SetLibraryPath(QIXX_FAKE_PLAIN));
  script = events;
  polls = 0;
  card.slots = script.front().slots;

  const TraceCapture trace;
  CWatchOptions record{};
  CopyTextCut(record.rest, "kill nothing");
  CopyTextCut(record.section, section);
  record.sync = sync;
  record.roundLimit = script.size();
  RunWatch(record);
  Pkcs11().Release();
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
}

TEST(SlotLoop, LogonVariantFollowsTheUsersCard) {
  const FakeSlot hers = {.id = 4, .description = "ann", .objects = {CertificateObject("hers")}};
  // The fourth round takes an event of another slot, one of a card that stayed and one of a card
  // that was swapped.
  const std::vector<Poll> events = {
      {0, {{1}}}, {4, {{1}, hers}}, {1, {{1}, hers}}, {4, {{1}, hers}}, {4, {{1}, {4}}}};
  EXPECT_EQ(Watch("LOGON", false, events), "") << "nobody is logged on";
  const LogonQueries queries = {
      [](std::span<char> name) { return CopyTextCut(name, "ann") != 0; },
      [](const char* user, auto identity, auto certificate, std::size_t& length) {
        length = std::string_view("hers").copy(reinterpret_cast<char*>(certificate.data()), 4);
        std::string_view(user).copy(identity.data(), identity.size());
        return polls != 0;
      }};
  SetLogonQueries(&queries);
  EXPECT_EQ(Watch("Logon", false, events),
            "Logon slot not found;Logon slot 4 inserted;Logon slot 4 removed;Logon slot not found;")
      << "the first round has no answer";
  SetLogonQueries(nullptr);
}

}  // namespace
}  // namespace qixx::testing
