// Beside a real PC/SC service with virtual readers, whose names the soft card's slots bear.
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <iterator>
#include <memory>
#include <thread>

#include "tests/bridge/card_service.h"
#include "tests/bridge/loaded_bridge.h"
#include "tests/bridge/piv_card.h"

/// A child that was forked beside a thread starts one of its own.
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() {
  return "die_after_fork=0";
}

namespace qixx::testing {
namespace {

class ReaderEvents : public LoadedBridge {
 protected:
  void SetUp() override {
    if (const std::string fault = CardService::EnterWorld(); !fault.empty()) {
      GTEST_SKIP() << "NOT TESTED on readers: " << fault;
    }
    NameReader(1, "Virtual PCD 00 00");
    NameReader(4, "Virtual PCD 00 01");
    service_.Start();
  }
  /// Starts with both readers there and no card in, and with nothing left to tell.
  void StartWatched() {
    Load(SOFTCARD_PLAIN);
    const int descriptor = Descriptor();
    ASSERT_GE(descriptor, 0);
    ASSERT_EQ(list_->C_Initialize(nullptr), CKR_OK);
    EXPECT_EQ(Descriptor(), descriptor) << "it does not change";
    ASSERT_TRUE(Settle());
  }
  /// Waits until a card has been seen to come and to go, and nothing is left to tell.
  [[nodiscard]] bool Settle() {
    auto card = CardIn(0);
    if (card == nullptr || !Tells(1)) return false;
    card.reset();
    return Tells(1) && IsQuiet(1000);
  }
  /// Goes through all events up to this one, as they are told when the descriptor is readable.
  [[nodiscard]] bool NextIs(long slot) {
    long told = -1;
    while (told != slot && IsReadable()) told = Poll();
    return told == slot;
  }
  /// The same, and nothing is left to tell.
  [[nodiscard]] bool LastIs(long slot) { return NextIs(slot) && IsQuiet(); }
  static auto EntriesOf(const char* folder) {
    return std::distance(std::filesystem::directory_iterator(folder), {});
  }

  CardService service_;
};

TEST_F(ReaderEvents, DescriptorIsReadableWhileThereIsSomethingToTell) {
  StartWatched();
  auto first = CardIn(0);
  EXPECT_TRUE(LastIs(1));
  auto second = CardIn(1);
  EXPECT_TRUE(Eventually([this] { return Slots(CK_TRUE).size() == 2; }));
  EXPECT_TRUE(IsQuiet()) << "of one at a time";
  first.reset();
  EXPECT_TRUE(NextIs(1));
  EXPECT_TRUE(IsReadable(0)) << "another event is left";
  EXPECT_TRUE(LastIs(4));
  second.reset();
  EXPECT_TRUE(NextIs(4));
}

TEST_F(ReaderEvents, CardThatIsChangedBetweenTwoPollsIsTwoEvents) {
  StartWatched();
  auto card = CardIn(0);
  EXPECT_TRUE(LastIs(1));
  card.reset();
  EXPECT_TRUE(IsReadable());
  card = CardIn(0);
  EXPECT_TRUE(Eventually([this] { return ShowsCard(); }));
  EXPECT_EQ(Poll(), 1);
  EXPECT_FALSE(ShowsCard()) << "up to the next poll";
  EXPECT_EQ(Poll(), 1);
  EXPECT_TRUE(ShowsCard());

  const auto other = CardIn(1);
  EXPECT_TRUE(Eventually([this] { return ShowsCard(4); }));
  ASSERT_TRUE(IsQuiet());
  card.reset();
  EXPECT_TRUE(IsReadable());
  card = CardIn(0);
  EXPECT_TRUE(Eventually([this] { return ShowsCard(); }));
  EXPECT_EQ(Poll(), 1);
  EXPECT_EQ(Poll(), 4) << "the other one's turn";
}

TEST_F(ReaderEvents, ModuleIsMadeToLookForACardThatItUsed) {
  StartWatched();
  auto card = CardIn(0);
  EXPECT_TRUE(LastIs(1));
  EXPECT_EQ(Slots(CK_TRUE), Numbers{1});
  desktop_.SetModuleFaults("fail=C_GetSlotList:0x30");
  card.reset();
  EXPECT_TRUE(NextIs(1));
  EXPECT_EQ(Answer(), CKR_DEVICE_ERROR) << "it was asked";
  desktop_.SetModuleFaults("");
}

/// Readers whose names are one and the same in the 64 bytes of a slot description: PC/SC cannot
/// tell the slots apart, the module can.
TEST_F(ReaderEvents, ReadersWithOneNameAreTheModules) {
  service_.Stop();
  std::string readers = CardService::Readers();
  const std::string longName(80, 'x');
  ASSERT_NE(readers.find("Virtual PCD"), std::string::npos) << readers;
  service_.Start(readers.replace(readers.find("Virtual PCD"), 11, longName));
  for (const int slot : {1, 4}) NameReader(slot, longName);
  Start(SOFTCARD_PLAIN);
  ASSERT_NE(CardIn(0), nullptr);
  ASSERT_TRUE(Eventually([this] { return Poll() == -1; }));
  for (const int slot : {1, 4}) {
    desktop_.InsertCard(slot);
    EXPECT_TRUE(Tells(slot));
    desktop_.RemoveCard(slot);
    EXPECT_TRUE(Tells(slot));
  }
}

TEST_F(ReaderEvents, RemovalDoesNotWaitForTheModule) {
  NameReader(7, "No reader of PC/SC");
  StartWatched();
  auto card = CardIn(0);
  EXPECT_TRUE(LastIs(1));
  desktop_.SetModuleFaults("throw=C_WaitForSlotEvent");
  card.reset();
  EXPECT_TRUE(NextIs(1));
  desktop_.SetModuleFaults("");
}

TEST_F(ReaderEvents, DescriptorThatSomebodyElseTookIsLeftAlone) {
  StartWatched();
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  const auto fileOf = [](int descriptor) {
    std::error_code none;
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor), none);
  };
  const std::filesystem::path pipe = fileOf(Descriptor());
  for (int either = 3; either < 1024; ++either) {
    if (fileOf(either) == pipe) {
      ASSERT_EQ(::dup2(ends[0], either), either);
    }
  }
  ASSERT_EQ(::write(ends[1], "theirs", 6), 6);
  for (const bool withCard : {true, false}) {
    const auto card = withCard ? CardIn(0) : nullptr;
    EXPECT_TRUE(Tells(1));
  }
  std::array<char, 8> text{};
  EXPECT_EQ(::recv(ends[1], text.data(), text.size(), MSG_DONTWAIT), -1);
  EXPECT_EQ(::recv(ends[0], text.data(), text.size(), MSG_DONTWAIT), 6);
  for (const int end : ends) ::close(end);
}

TEST_F(ReaderEvents, NoWakeUpIsLostBetweenPolls) {
  StartWatched();
  std::atomic<bool> done = false;
  std::thread cards([&done] {
    for (int i = 0; i < 4; ++i) {
      const auto card = CardIn(0);
      std::this_thread::sleep_for(std::chrono::milliseconds(600));
    }
    done = true;
  });
  int told = 0;
  while (!done || IsReadable(2000)) told += IsReadable(100) && Poll() == 1 ? 1 : 0;
  cards.join();
  EXPECT_EQ(told % 2, 0) << "the last card has gone";
  EXPECT_GE(told, 2);
  EXPECT_EQ(Poll(), -1);
}

TEST_F(ReaderEvents, ServiceThatDiesAndComesBack) {
  StartWatched();
  auto card = CardIn(0);
  EXPECT_TRUE(NextIs(1));
  service_.Stop(SIGKILL);
  EXPECT_TRUE(NextIs(1)) << "gone with the service";
  service_.Start();
  EXPECT_TRUE(IsReadable());
  card = CardIn(0);
  EXPECT_TRUE(LastIs(1));
  card.reset();
  EXPECT_TRUE(NextIs(1)) << "the thread is back, too";
}

TEST_F(ReaderEvents, ManyRoundsLeaveNothing) {
  StartWatched();
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
  const auto card = CardIn(0);
  EXPECT_TRUE(NextIs(1));
}

TEST_F(ReaderEvents, ForkedChildHasADescriptorOfItsOwn) {
  if (*QIXX_SANITIZER != '\0') {
    GTEST_SKIP() << "a sanitizer takes the child's new thread for the parent's, whose stack it has";
  }
  StartWatched();
  const pid_t child = ::fork();
  if (child == 0) {
    ::_exit(Descriptor() == -1 && list_->C_Initialize(nullptr) == CKR_OK && Descriptor() >= 0 &&
                    Settle() && list_->C_Finalize(nullptr) == CKR_OK
                ? 0
                : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  ASSERT_TRUE(IsQuiet());
  const auto card = CardIn(0);
  EXPECT_TRUE(NextIs(1)) << "the parent's goes on";
}

/// Two slots of one reader, as for a card with several PINs.
TEST_F(ReaderEvents, SecondarySlotTellsNothing) {
  StartWatched();
  NameReader(2, "Virtual PCD 00 00");
  ASSERT_EQ(Slots(), (Numbers{1, 2, 4}));
  EXPECT_EQ(Poll(), -1);
  desktop_.InsertCard(2);
  EXPECT_EQ(Slots(), (Numbers{1, 2, 4})) << "now the module has been asked";
  EXPECT_EQ(Poll(), -1);
  EXPECT_EQ(Slots(CK_TRUE), (Numbers{2}));
  EXPECT_EQ(Poll(), -1);
}

TEST_F(ReaderEvents, EndsWhileTheServiceIsAway) {
  service_.Stop();
  Start(SOFTCARD_PLAIN);
  ASSERT_GE(Descriptor(), 0) << "the service may come";
  ASSERT_EQ(list_->C_Finalize(nullptr), CKR_OK) << "the pause between two tries is ended";
}

}  // namespace
}  // namespace qixx::testing
