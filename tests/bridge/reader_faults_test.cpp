// Over a PC/SC library whose answers the test decides.
#include <atomic>
#include <chrono>
#include <thread>

#include "tests/bridge/loaded_bridge.h"
#include "tests/bridge/scripted_pcsc.h"

namespace qixx::testing {
namespace {

/// The bridge waits three seconds between two connections.
constexpr std::chrono::milliseconds kUntilItConnectsAgain{3100};

class ReaderFaults : public LoadedBridge {
 protected:
  void SetUp() override {
    NameReader(1, std::string(ScriptedPcsc::kReader));
    Start(SOFTCARD_PLAIN);
  }
  void MoveCard(bool in) {
    pcsc_.hasCard = in;
    ++pcsc_.changes;
  }
  [[nodiscard]] bool TellsThatCardIs(bool in) { return Tells(1) && ShowsCard() == in; }
  [[nodiscard]] bool TellsOfAnotherCard() {
    return TellsThatCardIs(false) && TellsThatCardIs(true) && Poll() == -1;
  }

  ScriptedPcsc& pcsc_ = ThePcsc();
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
  for (const auto& [name, fault, value, byPoll] :
       {Row{"states lost at the poll", &ScriptedPcsc::isStateLost, true, true},
        {"states lost at the question", &ScriptedPcsc::isStateLost, true, false},
        {"list lost at the question", &ScriptedPcsc::isListLost, true, false},
        {"reader away at the question", &ScriptedPcsc::hasReader, false, false}}) {
    SCOPED_TRACE(name);
    MoveCard(true);
    ASSERT_TRUE(Tells(1));
    std::this_thread::sleep_for(kUntilItConnectsAgain);
    pcsc_.*fault = value;
    if (!byPoll) static_cast<void>(ShowsCard());
    pcsc_.hasReader = true;
    EXPECT_TRUE(TellsOfAnotherCard());
    MoveCard(false);
    EXPECT_TRUE(TellsThatCardIs(false));
    EXPECT_EQ(Poll(), -1);
  }
}

/// As a token does that is a reader and a card in one.
TEST_F(ReaderFaults, ReaderThatIsBackBeforeThePollBringsAnotherCard) {
  ASSERT_TRUE(IsReadable()) << "the waiting thread has seen the reader";
  MoveCard(true);
  EXPECT_TRUE(TellsThatCardIs(true));
  EXPECT_EQ(Poll(), -1);
  const unsigned before = pcsc_.emptyLists;
  pcsc_.hasReader = false;
  EXPECT_TRUE(Eventually([&] { return pcsc_.emptyLists > before; }));
  pcsc_.hasReader = true;
  EXPECT_TRUE(TellsOfAnotherCard());
}

TEST_F(ReaderFaults, ListThatIsEmptyWhenACardComesIsNotBelieved) {
  ASSERT_TRUE(IsReadable());
  ASSERT_TRUE(IsQuiet(500)) << "the thread waits";
  const unsigned before = pcsc_.lists;
  MoveCard(true);
  ASSERT_TRUE(Eventually([&] { return pcsc_.lists > before; })) << "it waits again";
  pcsc_.isListEmpty = true;
  EXPECT_EQ(Poll(), -1);
  EXPECT_EQ(Poll(), 1);
}

}  // namespace
}  // namespace qixx::testing
