// The bridge in this process beside a real PC/SC service with virtual readers, over the soft card,
// whose slots bear the names of those readers.
#include <poll.h>
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
#include "tests/bridge/piv_card.h"
#include "tests/support/eventually.h"
#include "tests/support/loaded_module.h"

/// A child that was forked beside a thread starts one of its own.
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() {
  return "die_after_fork=0";
}

namespace qixx::testing {
namespace {

class ReaderEvents : public LoadedModule {
 protected:
  void SetUp() override {
    if (const std::string fault = CardService::EnterWorld(); !fault.empty()) {
      GTEST_SKIP() << "NOT TESTED on readers: " << fault;
    }
    folder_.Write("readers/1/slot", "description=Virtual PCD 00 00\n");
    folder_.Write("readers/4/slot", "description=Virtual PCD 00 01\n");
    service_.Start();
    path_ = folder_.Path("bridge.so");  // a copy of its own: the bridge is never unloaded
    std::filesystem::copy_file(BRIDGE, path_);
  }
  int Descriptor() { return Function<int (*)()>("QixEventDescriptor")(); }
  /// Starts with both readers there and no card in, and with nothing left to tell.
  void StartWatched() {
    Load(path_);
    descriptor_ = Descriptor();
    ASSERT_GE(descriptor_, 0);
    ASSERT_EQ(list_->C_Initialize(nullptr), CKR_OK);
    EXPECT_EQ(Descriptor(), descriptor_) << "it does not change";
    ASSERT_TRUE(Settle());
  }
  /// Waits until a card has been seen to come and to go, and nothing is left to tell.
  [[nodiscard]] bool Settle() {
    const auto isTold = [this] { return Poll() == 1; };
    auto card = CardIn(0);
    if (card == nullptr || !Eventually(isTold)) return false;
    card.reset();
    return Eventually(isTold) && Eventually([this] { return Poll() == -1 && !IsReadable(1000); });
  }
  [[nodiscard]] bool IsReadable(int milliseconds) const {
    pollfd waited = {descriptor_, POLLIN, 0};
    return ::poll(&waited, 1, milliseconds) == 1;
  }
  /// The slots of all events up to this one, as they are told when the descriptor is readable.
  [[nodiscard]] bool NextIs(long slot) {
    long told = -1;
    while (told != slot && IsReadable(15'000)) told = Poll();
    return told == slot;
  }
  /// The last poll has told all.
  [[nodiscard]] bool IsQuiet() {
    return Eventually([this] { return Poll() == -1 && !IsReadable(0); });
  }
  static std::size_t EntriesOf(const char* folder) {
    const std::filesystem::directory_iterator entries(folder);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
  }

  CardService service_;
  const ScopedVariable home_{"HOME", folder_.Path().c_str()};
  const ScopedVariable module_{"qix:Pkcs11:Module", SOFTCARD_PLAIN};
  const ScopedVariable readers_{"QIXX_SOFTCARD", folder_.Path("readers").c_str()};
  std::string path_;
  int descriptor_ = -1;
};

TEST_F(ReaderEvents, DescriptorIsReadableWhileThereIsSomethingToTell) {
  StartWatched();
  auto first = CardIn(0);
  EXPECT_TRUE(NextIs(1));
  EXPECT_TRUE(IsQuiet());
  auto second = CardIn(1);
  EXPECT_TRUE(Eventually([this] {
    CK_ULONG cards = 0;
    return list_->C_GetSlotList(CK_TRUE, nullptr, &cards) == CKR_OK && cards == 2;
  }));
  EXPECT_TRUE(IsQuiet()) << "of the second card nothing is told";
  first.reset();
  EXPECT_TRUE(NextIs(1));
  EXPECT_TRUE(IsReadable(0)) << "another event is left";
  EXPECT_EQ(Poll(), 4);
  EXPECT_TRUE(IsQuiet());
  second.reset();
  EXPECT_TRUE(NextIs(4));
}

TEST_F(ReaderEvents, CardThatIsChangedBetweenTwoPollsIsTwoEvents) {
  StartWatched();
  auto card = CardIn(0);
  EXPECT_TRUE(NextIs(1));
  EXPECT_TRUE(IsQuiet());
  card.reset();
  EXPECT_TRUE(IsReadable(15'000));
  card = CardIn(0);
  CK_SLOT_INFO info = {};
  const auto isShown = [&] {
    return list_->C_GetSlotInfo(1, &info) == CKR_OK && (info.flags & CKF_TOKEN_PRESENT) != 0;
  };
  EXPECT_TRUE(Eventually(isShown));
  EXPECT_EQ(Poll(), 1);
  EXPECT_FALSE(isShown()) << "up to the next poll";
  EXPECT_EQ(Poll(), 1);
  EXPECT_TRUE(isShown());
}

/// Readers whose names are one and the same in the 64 bytes of a slot description: PC/SC cannot
/// tell the slots apart, the module can.
TEST_F(ReaderEvents, ReadersWithOneNameAreTheModules) {
  service_.Stop();
  std::string readers = CardService::Readers();
  const std::string longName(80, 'x');
  ASSERT_NE(readers.find("Virtual PCD"), std::string::npos) << readers;
  service_.Start(readers.replace(readers.find("Virtual PCD"), 11, longName));
  for (const char* const slot : {"1", "4"}) {
    folder_.Write("readers/"s + slot + "/slot", "description=" + longName + "\n");
  }
  Start(path_);
  ASSERT_NE(CardIn(0), nullptr);
  ASSERT_TRUE(Eventually([this] { return Poll() == -1; }));
  for (const long slot : {1, 4}) {
    folder_.Write("readers/" + std::to_string(slot) + "/card/x", "");
    EXPECT_TRUE(Eventually([&] { return Poll() == slot; })) << slot;
    std::filesystem::remove_all(folder_.Path("readers/" + std::to_string(slot) + "/card"));
    EXPECT_TRUE(Eventually([&] { return Poll() == slot; })) << slot;
  }
}

TEST_F(ReaderEvents, RemovalDoesNotWaitForTheModule) {
  folder_.Write("readers/7/slot", "description=No reader of PC/SC\n");
  StartWatched();
  auto card = CardIn(0);
  EXPECT_TRUE(NextIs(1));
  EXPECT_TRUE(IsQuiet());
  folder_.Write("readers/module", "throw=C_WaitForSlotEvent\n");
  card.reset();
  EXPECT_TRUE(NextIs(1));
  folder_.Write("readers/module", "");
}

TEST_F(ReaderEvents, DescriptorThatSomebodyElseTookIsLeftAlone) {
  StartWatched();
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  ASSERT_EQ(::dup2(ends[0], descriptor_), descriptor_);
  ASSERT_EQ(::write(ends[1], "theirs", 6), 6);
  for (const bool withCard : {true, false}) {
    const auto card = withCard ? CardIn(0) : nullptr;
    EXPECT_TRUE(Eventually([this] { return Poll() == 1; }));
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
  std::size_t told = 0;
  while (!done || IsReadable(2000)) told += IsReadable(100) && Poll() == 1 ? 1 : 0;
  cards.join();
  EXPECT_EQ(told % 2, 0U) << "the last card has gone";
  EXPECT_GE(told, 2U);
  EXPECT_EQ(Poll(), -1);
}

TEST_F(ReaderEvents, ServiceThatDiesAndComesBack) {
  StartWatched();
  auto card = CardIn(0);
  EXPECT_TRUE(NextIs(1));
  service_.Stop(SIGKILL);
  EXPECT_TRUE(NextIs(1)) << "gone with the service";
  service_.Start();
  EXPECT_TRUE(IsReadable(15'000));
  card = CardIn(0);
  EXPECT_TRUE(Eventually([this] { return Poll() == 1; }));
  EXPECT_TRUE(IsQuiet());
  card.reset();
  EXPECT_TRUE(NextIs(1)) << "the thread is back, too";
}

TEST_F(ReaderEvents, ManyRoundsLeaveNothing) {
  StartWatched();
  list_->C_Finalize(nullptr);
  const std::size_t descriptors = EntriesOf("/proc/self/fd");
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
    bool isWell = Descriptor() == -1 && list_->C_Initialize(nullptr) == CKR_OK;
    descriptor_ = Descriptor();
    isWell = isWell && descriptor_ >= 0 && Settle() && list_->C_Finalize(nullptr) == CKR_OK;
    ::_exit(isWell ? 0 : 1);
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
  folder_.Write("readers/2/slot", "description=Virtual PCD 00 00\n");
  ASSERT_EQ(Slots(), (Numbers{1, 2, 4}));
  EXPECT_EQ(Poll(), -1);
  folder_.Write("readers/2/card/x", "");
  EXPECT_EQ(Slots(), (Numbers{1, 2, 4})) << "now the module has been asked";
  EXPECT_EQ(Poll(), -1);
  EXPECT_EQ(Slots(CK_TRUE), (Numbers{2}));
  EXPECT_EQ(Poll(), -1);
}

TEST_F(ReaderEvents, EndsWhileTheServiceIsAway) {
  service_.Stop();
  Load(path_);
  ASSERT_EQ(list_->C_Initialize(nullptr), CKR_OK);
  descriptor_ = Descriptor();
  ASSERT_GE(descriptor_, 0) << "the service may come";
  ASSERT_EQ(list_->C_Finalize(nullptr), CKR_OK) << "the pause between two tries is ended";
}

}  // namespace
}  // namespace qixx::testing
