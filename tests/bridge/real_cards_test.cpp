// The service, the bridge, the distribution's OpenSC and PC/SC service, and a PIV card in a virtual
// reader: everything is real but the card.
#include <gtest/gtest.h>

#include <map>
#include <memory>

#include "tests/bridge/card_service.h"
#include "tests/bridge/piv_card.h"
#include "tests/end_to_end/desktop.h"
#include "tests/support/environment.h"
#include "tests/support/eventually.h"
#include "tests/support/openssl.h"

namespace qixx::testing {
namespace {

constexpr const char* kUpn = "ann@tessaly.example\n";

class RealCards : public ::testing::Test {
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
    if (desktop.Process() == 0) return;
    EXPECT_EQ(desktop.Stop(), 0) << desktop.Report();
  }

  /// Starts to watch; the name of the card's holder goes into "said.txt".
  void Watch() {
    desktop.Configure("[Command]\nWatch=-sync config Watch\n[Watch Insert]\n1=" +
                      desktop.Echo("%UPN%", "said.txt") +
                      "\n[Watch Remove]\n1=" + desktop.Echo("removed", "said.txt") + "\n");
    desktop.Start();
    ASSERT_TRUE(desktop.Traced("Watch - Running 'Watch'")) << desktop.Report();
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
  /// Polls until PC/SC shows so many cards.
  [[nodiscard]] static bool Shows(int cards) {
    const std::string count = std::to_string(cards) + "\n";
    return Eventually([&] { return OutputOf("opensc-tool -l | grep -c Yes; true") == count; });
  }
  [[nodiscard]] bool Connected(int slot, std::size_t count = 1) const {
    return desktop.Traced("Watch - Connected slot " + std::to_string(slot), count);
  }
  [[nodiscard]] bool Disconnected(int slot, std::size_t count = 1) const {
    return desktop.Traced("Watch - Disconnected slot " + std::to_string(slot), count);
  }

  CardService service;
  Desktop desktop;
  std::string certificate_;
  std::map<int, std::unique_ptr<InsertedCard>> in_;
};

TEST_F(RealCards, OneThatIsInAtStartAndAnother) {
  service.Start();
  Insert(1);
  ASSERT_TRUE(Shows(1));
  Watch();
  EXPECT_TRUE(Connected(4)) << desktop.Report();
  EXPECT_TRUE(desktop.Holds("said.txt", kUpn)) << desktop.Report();
  Insert(0);
  ASSERT_TRUE(desktop.Traced("Watch - Already connected")) << desktop.Report();
  Remove(1);
  EXPECT_TRUE(Disconnected(4)) << desktop.Report();
}

TEST_F(RealCards, TenInARowInBothReaders) {
  service.Start();
  Watch();
  for (std::size_t card = 0; card < 10; ++card) {
    const int reader = static_cast<int>(card % 2);
    Insert(reader);
    ASSERT_TRUE(Connected(reader * 3 + 1, card / 2 + 1)) << desktop.Report();
    ASSERT_TRUE(desktop.Holds("said.txt", kUpn)) << desktop.Report();
    Remove(reader);
    ASSERT_TRUE(Disconnected(reader * 3 + 1, card / 2 + 1)) << desktop.Report();
    ASSERT_TRUE(desktop.Holds("said.txt", "removed\n")) << desktop.Report();
  }
  EXPECT_EQ(desktop.TraceCount("Watch - Event"), 21U) << "the one at start, and two for each card";
}

TEST_F(RealCards, UnknownToTheModuleAndChangedBetweenTwoLooks) {
  service.Start();
  Watch();
  Insert(0, "");
  ASSERT_TRUE(Connected(1)) << "its events count all the same: " << desktop.Report();
  ::kill(desktop.Process(), SIGSTOP);
  Remove(0);
  ASSERT_TRUE(Shows(0));
  Insert(0);
  ASSERT_TRUE(Shows(1));
  ::kill(desktop.Process(), SIGCONT);
  EXPECT_TRUE(Disconnected(1)) << desktop.Report();
  EXPECT_TRUE(Connected(1, 2)) << desktop.Report();
  EXPECT_TRUE(desktop.Holds("said.txt", kUpn)) << desktop.Report();
}

TEST_F(RealCards, PulledWhileItIsRead) {
  service.Start();
  Watch();
  Insert(0, certificate_, {.pulledWhileRead = true});
  ASSERT_TRUE(Connected(1)) << desktop.Report();
  EXPECT_TRUE(in_[0]->Counters().gone);
  ASSERT_TRUE(Disconnected(1)) << desktop.Report();
  Remove(0);
  Insert(0);
  ASSERT_TRUE(Connected(1, 2)) << desktop.Report();
  EXPECT_TRUE(desktop.Holds("said.txt", kUpn)) << desktop.Report();
}

TEST_F(RealCards, ServiceAndDriverComeLateDieAndComeBack) {
  Watch();
  ASSERT_TRUE(desktop.Traced("Watch - Event")) << desktop.Report();
  service.Start("");
  // A driver that has just been installed is found by a service that is started again.
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  service.Stop();
  for (const std::size_t count : {1, 2}) {
    service.Start();
    Insert(1);
    ASSERT_TRUE(Connected(4, count)) << desktop.Report();
    EXPECT_TRUE(desktop.Holds("said.txt", kUpn)) << desktop.Report();
    service.Stop(SIGKILL);
    ASSERT_TRUE(Disconnected(4, count)) << desktop.Report();
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
  service.Start(readers);
  Watch();
  for (const int reader : {0, 1}) {
    const int slot = reader * 3 + 1;
    Insert(reader);
    ASSERT_TRUE(Connected(slot)) << desktop.Report();
    EXPECT_TRUE(desktop.Holds("said.txt", kUpn)) << desktop.Report();
    Remove(reader);
    ASSERT_TRUE(Disconnected(slot)) << desktop.Report();
  }
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
  service.Start();
  Insert(1);
  ASSERT_TRUE(Shows(1));
  const ScopedVariable none("qixconfigglobal", desktop.Path("none.conf").c_str());
  const std::string bare = Listed("opensc-pkcs11.so");
  EXPECT_EQ(Listed(BRIDGE), bare);
  EXPECT_NE(bare.find("Certificate for PIV Authentication"), std::string::npos) << bare;
}

}  // namespace
}  // namespace qixx::testing
