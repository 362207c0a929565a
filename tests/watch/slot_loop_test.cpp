#include "watch/slot_loop.h"

#include <gtest/gtest.h>

#include "pkcs11/wrapper.h"
#include "runtime/files.h"
#include "tests/support/environment.h"
#include "tests/support/trace_capture.h"

namespace qixx::testing {
namespace {

class SlotLoop : public ::testing::Test {
 protected:
  SlotLoop() {
    InitProductIdentity();
    EXPECT_TRUE(Pkcs11().SetLibraryPath(QIXX_SCRIPTED_MODULE));
  }
  ~SlotLoop() override { SetLogonQueries(nullptr); }

  /// The lines about slots that the run over a script leaves, without "Watch - ".
  static std::vector<std::string> Run(const char* script, const char* section, bool sync,
                                      std::uint64_t rounds) {
    const ScopedVariable events("SCRIPTED_EVENTS", script);
    const TraceCapture trace;
    CWatchOptions record{};
    CopyTextCut(record.rest, "kill nothing");
    CopyTextCut(record.section, section);
    record.sync = sync ? 1 : 0;
    record.roundLimit = rounds;
    RunWatch(record);
    std::vector<std::string> told;
    for (const std::string& line : trace.Lines()) {
      for (const std::string_view head : {"Watch - Event", "Watch - Already", "Watch - Connected",
                                          "Watch - Disconnected", "Watch - Logon"}) {
        if (line.starts_with(head))
          told.push_back(line.substr(std::string_view("Watch - ").size()));
      }
    }
    return told;
  }
};

TEST_F(SlotLoop, EventsConnectAndDisconnect) {
  using Lines = std::vector<std::string>;
  const struct {
    const char* name;
    const char* script;
    bool sync;
    std::uint64_t rounds;
    Lines expected;
  } rows[] = {
      {"no card at start", "-:", false, 1, {"Event", "Disconnected slot 0"}},
      {"slot in the middle of its group at start", "-:2", false, 1, {}},
      {"same slot again",
       "1:1 1:1",
       true,
       2,
       {"Event", "Connected slot 1", "Event", "Already connected"}},
      {"the other slot's removal forgets the connected one",
       "-:1 4:1,4 4:1 1:",
       false,
       4,
       {"Event", "Connected slot 1", "Event", "Already connected", "Event", "Event",
        "Disconnected slot 0"}},
      {"the other slot's event after the connected token went",
       "-:1 4:",
       true,
       2,
       {"Event", "Connected slot 1", "Event", "Disconnected slot 1"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(Run(row.script, "Watch", row.sync, row.rounds), row.expected);
  }
}

bool NameUser(std::span<char> name) {
  return CopyTextCut(name, "ann") != 0;
}

/// Ann's certificate is on slot 4 when there is a token.
bool FindAnn(const char* user, std::span<const CK_SLOT_ID> slots, CK_SLOT_ID& slot,
             std::span<std::uint8_t> certificate, std::size_t& certificateLength) {
  slot = 0;
  for (const CK_SLOT_ID candidate : slots) {
    if (candidate == 4) slot = candidate;
  }
  certificate[0] = 0x30;
  certificateLength = 1;
  return std::string_view(user) == "ann";
}

TEST_F(SlotLoop, LogonVariantEndsAtOnceWithoutAUser) {
  EXPECT_TRUE(Run("-: 4:4", "LOGON", false, kEndlessRounds).empty());
}

TEST_F(SlotLoop, LogonVariantFollowsTheUsersCard) {
  const LogonQueries queries = {&NameUser, &FindAnn};
  SetLogonQueries(&queries);
  // The fourth round takes an event of another slot before that of the removal.
  EXPECT_EQ(Run("-:1 4:1,4 1:1,4 4:1", "Logon", false, 5),
            (std::vector<std::string>{"Logon slot not found", "Logon slot not found",
                                      "Logon slot 4 inserted", "Logon slot 4 removed",
                                      "Logon slot not found"}));
}

}  // namespace
}  // namespace qixx::testing
