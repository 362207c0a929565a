// Beside a PC/SC library whose answers the test decides.
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <thread>

#include "tests/bridge/loaded_bridge.h"
#include "tests/bridge/scripted_pcsc.h"

namespace qixx::testing {
namespace {

/// The bridge waits three seconds between two connections.
constexpr std::chrono::milliseconds kUntilItConnectsAgain{3100};

class ReaderEvents : public LoadedBridge {
 protected:
  /// Starts with the reader there and no card in, and with nothing left to tell.
  void SetUp() override {
    pcsc_.hasCard = false;
    NameReader(1, std::string(ScriptedPcsc::kReader));
    Load(SOFTCARD_PLAIN);
    EXPECT_GE(Descriptor(), 0) << "this asks for the thread";
    ASSERT_EQ(list_->C_Initialize(nullptr), CKR_OK);
    ASSERT_TRUE(IsReadable() && IsQuiet(200)) << "the thread waits for a change";
  }

  void MoveCard(bool in) {
    pcsc_.hasCard = in;
    ++pcsc_.changes;
  }
  /// Goes through all events up to this one, as they are told when the descriptor is readable.
  [[nodiscard]] bool NextIs(long slot) {
    long told = -1;
    while (told != slot && IsReadable()) told = Poll();
    return told == slot;
  }
  /// The same, and nothing is left to tell.
  [[nodiscard]] bool LastIs(long slot) { return NextIs(slot) && IsQuiet(); }
  [[nodiscard]] bool TellsThatCardIs(bool in) { return Tells(1) && ShowsCard() == in; }
  [[nodiscard]] bool TellsOfAnotherCard() {
    return TellsThatCardIs(false) && TellsThatCardIs(true) && Poll() == kNoEvent;
  }
  static auto EntriesOf(const char* folder) {
    return std::distance(std::filesystem::directory_iterator(folder), {});
  }

  ScriptedPcsc& pcsc_ = ThePcsc();
};

TEST_F(ReaderEvents, CardThatIsChangedBetweenTwoPollsIsTwoEvents) {
  MoveCard(true);
  EXPECT_TRUE(LastIs(1));
  MoveCard(false);
  MoveCard(true);
  EXPECT_TRUE(IsReadable());
  EXPECT_TRUE(TellsThatCardIs(false));
  EXPECT_TRUE(IsReadable(0)) << "another event is left";
  EXPECT_TRUE(TellsThatCardIs(true) && IsQuiet());
}

TEST_F(ReaderEvents, RemovalDoesNotWaitForTheModule) {
  for (const bool isAloneWithPcsc : {true, false}) {
    if (!isAloneWithPcsc) NameReader(7, "No reader of PC/SC: the module is asked at each poll");
    MoveCard(true);
    EXPECT_TRUE(LastIs(1));
    EXPECT_EQ(Slots().size(), isAloneWithPcsc ? 1U : 2U) << "the module is in use";
    desktop_.SetModuleFaults("fail=C_WaitForSlotEvent:0x54\nfail=C_GetSlotList:0x30");
    MoveCard(false);
    EXPECT_TRUE(NextIs(1));
    EXPECT_EQ(Poll(), -static_cast<long>(CKR_DEVICE_ERROR)) << "it is to let go of the card";
    desktop_.SetModuleFaults("");
  }
}

/// Two slots of one reader, as for a card with several PINs.
TEST_F(ReaderEvents, SecondarySlotTellsNothing) {
  NameReader(2, std::string(ScriptedPcsc::kReader));
  desktop_.InsertCard(2);
  EXPECT_EQ(Slots(), (Numbers{1, 2})) << "now the module has been asked";
  EXPECT_EQ(Poll(), kNoEvent);
  EXPECT_EQ(Slots(CK_TRUE), (Numbers{2}));
  EXPECT_EQ(Poll(), kNoEvent);
}

TEST_F(ReaderEvents, DescriptorThatSomebodyElseTookIsLeftAlone) {
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  const std::filesystem::path folder = "/proc/self/fd";
  const auto pipe = std::filesystem::read_symlink(folder / std::to_string(Descriptor()));
  ASSERT_EQ(::write(ends[1], "theirs", 6), 6);
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (std::filesystem::read_symlink(entry) != pipe) continue;
    const int either = std::stoi(entry.path().filename());
    ASSERT_EQ(::dup2(ends[0], either), either);
    for (const bool in : {true, false}) {
      MoveCard(in);
      EXPECT_TRUE(TellsThatCardIs(in));
    }
  }
  char text[8];
  EXPECT_EQ(::recv(ends[1], text, sizeof text, MSG_DONTWAIT), -1);
  EXPECT_EQ(::recv(ends[0], text, sizeof text, MSG_DONTWAIT), 6);
}

TEST_F(ReaderEvents, ManyRoundsLeaveNothing) {
  list_->C_Finalize(nullptr);
  const auto descriptors = EntriesOf("/proc/self/fd");
  for (int round = 0; round < 100; ++round) {
    ASSERT_EQ(list_->C_Initialize(nullptr), CKR_OK);
    if (round % 4 != 0) std::this_thread::sleep_for(std::chrono::milliseconds(round % 7));
    ASSERT_EQ(list_->C_Finalize(nullptr), CKR_OK);
    EXPECT_FALSE(IsReadable(0));
  }
  EXPECT_EQ(EntriesOf("/proc/self/fd"), descriptors);
  EXPECT_TRUE(Eventually([] { return EntriesOf("/proc/self/task") == 1; }));
  ASSERT_EQ(list_->C_Initialize(nullptr), CKR_OK);
  MoveCard(true);
  EXPECT_TRUE(NextIs(1));
}

/// The card may be another one, also where the service's counter says that nothing happened.
TEST_F(ReaderEvents, CardThatWasOutOfSightIsToldOfAgain) {
  MoveCard(true);
  EXPECT_TRUE(LastIs(1));
  std::this_thread::sleep_for(kUntilItConnectsAgain);
  pcsc_.isStateLost = true;
  EXPECT_TRUE(ShowsCard());
  EXPECT_TRUE(TellsOfAnotherCard());
  // As a token does that is a reader and a card in one.
  EXPECT_TRUE(IsQuiet(200));
  pcsc_.hasReader = false;
  EXPECT_TRUE(IsReadable());
  pcsc_.hasReader = true;
  EXPECT_TRUE(TellsOfAnotherCard());
}

}  // namespace
}  // namespace qixx::testing
