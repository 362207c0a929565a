// Beside a PC/SC library whose answers the test decides.
#include <sys/socket.h>
#include <unistd.h>

#include <array>
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
  /// Starts with both readers there and no card in, and with nothing left to tell.
  void SetUp() override {
    for (auto& hasCard : pcsc_.hasCard) hasCard = false;
    NameReader(1, std::string(ScriptedPcsc::kReaders[0]));
    NameReader(4, std::string(ScriptedPcsc::kReaders[1]));
    Load(SOFTCARD_PLAIN);
    const int descriptor = Descriptor();
    ASSERT_EQ(list_->C_Initialize(nullptr), CKR_OK);
    EXPECT_EQ(Descriptor(), descriptor) << "it does not change";
    ASSERT_TRUE(IsReadable() && IsQuiet(200)) << "the thread waits for a change";
  }

  void MoveCard(bool in, CK_SLOT_ID slot = 1) {
    pcsc_.hasCard.at(slot / 3) = in;
    ++pcsc_.changes.at(slot / 3);
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
    return TellsThatCardIs(false) && TellsThatCardIs(true) && Poll() == -1;
  }
  static auto EntriesOf(const char* folder) {
    return std::distance(std::filesystem::directory_iterator(folder), {});
  }

  ScriptedPcsc& pcsc_ = ThePcsc();
};

TEST_F(ReaderEvents, DescriptorIsReadableWhileThereIsSomethingToTell) {
  MoveCard(true);
  EXPECT_TRUE(LastIs(1));
  MoveCard(true, 4);
  EXPECT_TRUE(IsReadable());
  EXPECT_TRUE(IsQuiet()) << "of one at a time";
  MoveCard(false);
  EXPECT_TRUE(NextIs(1));
  EXPECT_TRUE(IsReadable(0)) << "another event is left";
  EXPECT_TRUE(LastIs(4));
}

TEST_F(ReaderEvents, CardThatIsChangedBetweenTwoPollsIsTwoEvents) {
  MoveCard(true);
  EXPECT_TRUE(LastIs(1));
  MoveCard(false);
  MoveCard(true);
  EXPECT_TRUE(IsReadable());
  EXPECT_EQ(Poll(), 1);
  EXPECT_FALSE(ShowsCard()) << "up to the next poll";
  EXPECT_EQ(Poll(), 1);
  EXPECT_TRUE(ShowsCard());
}

TEST_F(ReaderEvents, ModuleIsMadeToLookForACardThatItUsed) {
  MoveCard(true);
  EXPECT_TRUE(LastIs(1));
  EXPECT_EQ(Slots(CK_TRUE), Numbers{1});
  desktop_.SetModuleFaults("fail=C_GetSlotList:0x30");
  MoveCard(false);
  EXPECT_TRUE(NextIs(1));
  EXPECT_EQ(Answer(), CKR_DEVICE_ERROR) << "it was asked";
  desktop_.SetModuleFaults("");
}

TEST_F(ReaderEvents, RemovalDoesNotWaitForTheModule) {
  NameReader(7, "No reader of PC/SC");
  MoveCard(true);
  EXPECT_TRUE(LastIs(1));
  desktop_.SetModuleFaults("throw=C_GetSlotList");
  MoveCard(false);
  EXPECT_TRUE(NextIs(1));
  desktop_.SetModuleFaults("");
}

/// Two slots of one reader, as for a card with several PINs.
TEST_F(ReaderEvents, SecondarySlotTellsNothing) {
  NameReader(2, std::string(ScriptedPcsc::kReaders[0]));
  desktop_.InsertCard(2);
  EXPECT_EQ(Slots(), (Numbers{1, 2, 4})) << "now the module has been asked";
  EXPECT_EQ(Poll(), -1);
  EXPECT_EQ(Slots(CK_TRUE), (Numbers{2}));
  EXPECT_EQ(Poll(), -1);
}

TEST_F(ReaderEvents, DescriptorThatSomebodyElseTookIsLeftAlone) {
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  const auto fileOf = [](int descriptor) {
    std::error_code none;
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor), none);
  };
  const std::filesystem::path pipe = fileOf(Descriptor());
  ASSERT_EQ(::write(ends[1], "theirs", 6), 6);
  for (int either = 3; either < 1024; ++either) {
    if (fileOf(either) != pipe) continue;
    ASSERT_EQ(::dup2(ends[0], either), either);
    for (const bool in : {true, false}) {
      MoveCard(in);
      EXPECT_TRUE(TellsThatCardIs(in));
    }
  }
  std::array<char, 8> text{};
  EXPECT_EQ(::recv(ends[1], text.data(), text.size(), MSG_DONTWAIT), -1);
  EXPECT_EQ(::recv(ends[0], text.data(), text.size(), MSG_DONTWAIT), 6);
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

/// Whatever fails for a moment at the question behind an event: the card that is in counts as
/// pulled and is told of again, also where the service's counter says that nothing happened.
TEST_F(ReaderEvents, CardThatIsInIsToldOfAgain) {
  MoveCard(true);
  ASSERT_TRUE(Tells(1));
  for (const auto fault : {&ScriptedPcsc::isStateLost, &ScriptedPcsc::isListEmpty}) {
    std::this_thread::sleep_for(kUntilItConnectsAgain);
    pcsc_.*fault = true;
    static_cast<void>(ShowsCard());
    EXPECT_TRUE(TellsOfAnotherCard());
  }
}

/// As a token does that is a reader and a card in one.
TEST_F(ReaderEvents, ReaderThatIsBackBeforeThePollBringsAnotherCard) {
  MoveCard(true);
  EXPECT_TRUE(TellsThatCardIs(true));
  EXPECT_EQ(Poll(), -1);
  const unsigned before = pcsc_.emptyLists;
  pcsc_.hasReaders = false;
  EXPECT_TRUE(Eventually([&] { return pcsc_.emptyLists > before; }));
  pcsc_.hasReaders = true;
  EXPECT_TRUE(TellsOfAnotherCard());
}

}  // namespace
}  // namespace qixx::testing
