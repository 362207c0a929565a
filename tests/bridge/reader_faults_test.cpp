// The bridge in this process over a PC/SC library whose answers the test decides.
#include <poll.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "tests/bridge/scripted_pcsc.h"
#include "tests/support/eventually.h"
#include "tests/support/loaded_module.h"

namespace qixx::testing {
namespace {

using namespace std::string_literals;

/// The bridge waits three seconds between two connections.
constexpr std::chrono::milliseconds kUntilItConnectsAgain{3100};

class ReaderFaults : public LoadedModule {
 protected:
  void SetUp() override {
    folder_.Write("readers/1/slot", "description="s + ScriptedPcsc::kReader + "\n");
    const std::string path = folder_.Path("bridge.so");  // a copy of its own
    std::filesystem::copy_file(BRIDGE, path);
    Start(path);
  }
  void PutCardIn() {
    pcsc_.hasCard = true;
    ++pcsc_.changes;
  }
  void PullCard() {
    pcsc_.hasCard = false;
    ++pcsc_.changes;
  }
  /// As the service asks behind an event.
  [[nodiscard]] bool ShowsCard() {
    CK_SLOT_INFO info = {};
    EXPECT_EQ(list_->C_GetSlotInfo(1, &info), CKR_OK);
    return (info.flags & CKF_TOKEN_PRESENT) != 0;
  }
  [[nodiscard]] bool NextEventShowsCard(bool shown) {
    return Eventually([this] { return Poll() == 1; }) && ShowsCard() == shown;
  }

  ScriptedPcsc& pcsc_ = ThePcsc();
  const ScopedVariable home_{"HOME", folder_.Path().c_str()};
  const ScopedVariable module_{"qix:Pkcs11:Module", SOFTCARD_PLAIN};
  const ScopedVariable readers_{"QIXX_SOFTCARD", folder_.Path("readers").c_str()};
};

/// Whatever fails for a moment, and whoever asked: the card that is in counts as pulled and is told
/// of again, also where the service's counter says that nothing happened.
TEST_F(ReaderFaults, CardThatIsInIsToldOfAgain) {
  struct Row {
    const char* name;
    std::atomic<bool> ScriptedPcsc::*fault;
    bool value;
    bool byPoll;  ///< else by the question behind the event
  };
  const Row rows[] = {{"states lost at the poll", &ScriptedPcsc::isStateLost, true, true},
                      {"states lost at the question", &ScriptedPcsc::isStateLost, true, false},
                      {"list lost at the question", &ScriptedPcsc::isListLost, true, false},
                      {"reader away at the question", &ScriptedPcsc::hasReader, false, false}};
  for (const auto& [name, fault, value, byPoll] : rows) {
    SCOPED_TRACE(name);
    PutCardIn();
    ASSERT_TRUE(Eventually([this] { return Poll() == 1; }));
    std::this_thread::sleep_for(kUntilItConnectsAgain);
    pcsc_.*fault = value;
    if (!byPoll) static_cast<void>(ShowsCard());
    pcsc_.hasReader = true;
    EXPECT_TRUE(NextEventShowsCard(false));
    EXPECT_TRUE(NextEventShowsCard(true));
    EXPECT_EQ(Poll(), -1);
    PullCard();
    EXPECT_TRUE(NextEventShowsCard(false));
    EXPECT_EQ(Poll(), -1);
  }
}

/// As a token does that is a reader and a card in one.
TEST_F(ReaderFaults, ReaderThatIsBackBeforeThePollBringsAnotherCard) {
  const int descriptor = Function<int (*)()>("QixEventDescriptor")();
  pollfd waited = {descriptor, POLLIN, 0};
  ASSERT_EQ(::poll(&waited, 1, 15'000), 1) << "the waiting thread has seen the reader";
  PutCardIn();
  EXPECT_TRUE(NextEventShowsCard(true));
  EXPECT_EQ(Poll(), -1);
  const unsigned before = pcsc_.emptyLists;
  pcsc_.hasReader = false;
  EXPECT_TRUE(Eventually([&] { return pcsc_.emptyLists > before; }));
  pcsc_.hasReader = true;
  EXPECT_TRUE(NextEventShowsCard(false));
  EXPECT_TRUE(NextEventShowsCard(true));
  EXPECT_EQ(Poll(), -1);
}

}  // namespace
}  // namespace qixx::testing
