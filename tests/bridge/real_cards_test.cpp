// The service, the bridge, the distribution's OpenSC and PC/SC service, and a PIV card in a virtual
// reader: everything is real but the card.
#include <map>
#include <memory>
#include <thread>

#include "tests/bridge/card_service.h"
#include "tests/bridge/piv_card.h"
#include "tests/end_to_end/service_test.h"
#include "tests/support/environment.h"
#include "tests/support/eventually.h"
#include "tests/support/openssl.h"

namespace qixx::testing {
namespace {

class RealCards : public ServiceTest {
 protected:
  void SetUp() override {
    if (const std::string fault = CardService::EnterWorld(); !fault.empty()) {
      GTEST_SKIP() << "NOT TESTED on cards: " << fault;
    }
    if (OutputOf("command -v opensc-tool").empty()) {
      GTEST_SKIP() << "NOT TESTED on cards: no OpenSC (package opensc)";
    }
    ASSERT_TRUE(MakeCertificate(desktop.Path("ann.der"))) << "the program openssl is needed";
    certificate_ = desktop.Home().Read("ann.der");
  }
  void TearDown() override {
    while (!in_.empty()) Remove(in_.begin()->first);
    ServiceTest::TearDown();
  }

  /// Starts to watch; the name of the card's holder goes into "said.txt".
  void Watch() {
    ServiceTest::Watch("-sync", {Echo("%UPN%", "said.txt")}, {Echo("removed", "said.txt")});
  }
  void Insert(int reader, const std::string& certificate, CardHabits habits = {}) {
    std::unique_ptr<InsertedCard>& card = in_[reader];
    ASSERT_TRUE(Eventually([&] {
      card.reset();
      card = std::make_unique<InsertedCard>(kFirstReaderPort + reader, certificate, habits);
      return card->IsIn();
    })) << "the reader does not listen";
  }
  void Insert(int reader) { Insert(reader, certificate_); }
  /// Every card tells what was done to it.
  void Remove(int reader) {
    EXPECT_EQ(in_[reader]->Counters().pins, 0) << "a PIN was sent";
    EXPECT_EQ(in_[reader]->Counters().writes, 0) << "the card was written to";
    in_.erase(reader);
  }
  /// Polls until PC/SC shows the reader with, or without, a card.
  [[nodiscard]] static bool Shows(int reader, const std::string& card) {
    const std::string line = "grep -E '^" + std::to_string(reader) + " +" + card + "'";
    return Eventually([&] { return !OutputOf("opensc-tool -l | " + line).empty(); });
  }
  /// Polls until the service has "Connected" or "Disconnected" the reader so many times.
  [[nodiscard]] bool Has(const std::string& done, int reader, std::size_t count = 1) const {
    return desktop.Traced("Watch - " + done + " slot " + std::to_string(reader * 3 + 1), count);
  }
  void ExpectRead(int reader, std::size_t count = 1) {
    ASSERT_TRUE(Has("Connected", reader, count));
    EXPECT_TRUE(desktop.Holds("said.txt", "ann@tessaly.example\n"));
  }
  /// A card goes in, is read, and goes.
  void InsertAndRemove(int reader, std::size_t count = 1) {
    Insert(reader);
    ExpectRead(reader, count);
    Remove(reader);
    ASSERT_TRUE(Has("Disconnected", reader, count));
    EXPECT_TRUE(desktop.Holds("said.txt", "removed\n"));
  }

  CardService service_;
  std::string certificate_;
  std::map<int, std::unique_ptr<InsertedCard>> in_;
};

TEST_F(RealCards, OneThatIsInAtStartAndAnother) {
  service_.Start();
  Insert(1);
  ASSERT_TRUE(Shows(1, "Yes"));
  Watch();
  ExpectRead(1);
  Insert(0);
  ASSERT_TRUE(Shows(0, "Yes"));
  Remove(1);
  ASSERT_TRUE(Has("Disconnected", 1));
  ExpectRead(0);
  EXPECT_EQ(desktop.TraceCount("Watch - Event"), 3U) << "of one card at a time";
}

TEST_F(RealCards, TenInARowInBothReaders) {
  service_.Start();
  Watch();
  for (std::size_t card = 0; card < 10 && !HasFailure(); ++card) {
    InsertAndRemove(static_cast<int>(card % 2), card / 2 + 1);
  }
  EXPECT_EQ(desktop.TraceCount("Watch - Event"), 21U) << "the one at start, and two for each card";
}

TEST_F(RealCards, UnknownToTheModuleAndChangedBetweenTwoPolls) {
  service_.Start();
  // A bridge that begins before the service is up asks PC/SC again after seconds only, and the
  // module alone does not notice a card that is changed between two polls.
  ASSERT_TRUE(Shows(0, "No"));
  Watch();
  Insert(0, "");
  ASSERT_TRUE(Has("Connected", 0)) << "its events count all the same";
  ::kill(desktop.Process(), SIGSTOP);
  Remove(0);
  ASSERT_TRUE(Shows(0, "No"));
  Insert(0);
  ASSERT_TRUE(Shows(0, "Yes"));
  ::kill(desktop.Process(), SIGCONT);
  EXPECT_TRUE(Has("Disconnected", 0));
  ExpectRead(0, 2);
}

TEST_F(RealCards, PulledWhileItIsRead) {
  service_.Start();
  Watch();
  Insert(0, certificate_, {.pulledWhileRead = true});
  ASSERT_TRUE(Has("Connected", 0));
  EXPECT_EQ(in_[0]->Counters().certificateReads, 1) << "and it never answered";
  ASSERT_TRUE(Has("Disconnected", 0));
  Remove(0);
  Insert(0);
  ExpectRead(0, 2);
}

TEST_F(RealCards, ServiceAndDriverComeLateDieAndComeBack) {
  Watch();
  service_.Start("");
  // A driver that has just been installed is found by a service that is started again.
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  service_.Stop();
  for (const std::size_t count : {1U, 2U}) {
    service_.Start();
    Insert(1);
    ExpectRead(1, count);
    service_.Stop(SIGKILL);
    ASSERT_TRUE(Has("Disconnected", 1, count));
    Remove(1);
  }
}

/// Readers whose names are one and the same in the 64 bytes of a slot description: PC/SC cannot
/// tell the slots apart, the module can.
TEST_F(RealCards, ReadersWithOneName) {
  std::string readers = CardService::Readers();
  const std::string name = "Virtual PCD";
  ASSERT_NE(readers.find(name), std::string::npos) << readers;
  readers.replace(readers.find(name), name.size(), std::string(80, 'x'));
  service_.Start(readers);
  Watch();
  for (const int reader : {0, 1}) InsertAndRemove(reader);
  EXPECT_EQ(desktop.TraceCount("Watch - Event"), 5U);
}

/// What the tool prints, without the numbers that differ from run to run.
std::string Listed(const std::string& module) {
  return OutputOf("pkcs11-tool --module " + module +
                  " -L -O 2>&1 | sed -E 's/0x[0-9a-f]+/ID/; s/(object) [0-9]+/\\1/'");
}

TEST_F(RealCards, ToolListsWhatTheModuleHas) {
  if (*QIXX_SANITIZER != '\0') {
    GTEST_SKIP() << "a program without the sanitizer cannot load a library with it";
  }
  service_.Start();
  Insert(1);
  ASSERT_TRUE(Shows(1, "Yes"));
  const ScopedVariable none("qixconfigglobal", desktop.Path("none.conf").c_str());
  const std::string bare = Listed("opensc-pkcs11.so");
  EXPECT_EQ(Listed(BRIDGE), bare);
  EXPECT_NE(bare.find("Certificate for PIV Authentication"), std::string::npos) << bare;
}

}  // namespace
}  // namespace qixx::testing
