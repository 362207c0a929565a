// The service, the bridge, the distribution's OpenSC and PC/SC service, and a PIV card in a virtual
// reader: everything is real but the card.
#include <map>
#include <memory>
#include <optional>

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
    ASSERT_TRUE(MakeCertificate(Path("ann.der"))) << "the program openssl is needed";
    service_.emplace();
  }
  /// Starts to watch; the name of the card's holder goes into "said.txt".
  void Watch() {
    ServiceTest::Watch("-sync", {Echo("%UPN%", "said.txt")}, {Echo("removed", "said.txt")});
  }
  /// As soon as the reader listens.
  void Insert(int reader) {
    ASSERT_TRUE(Eventually([&] {
      in_[reader] = std::make_unique<InsertedCard>(kFirstReaderPort + reader, Read("ann.der"));
      return in_[reader]->IsIn();
    }));
  }
  /// Inserts a card, and polls until PC/SC shows it.
  void InsertSeen(int reader) {
    Insert(reader);
    const std::string shown = "opensc-tool -l | grep -E '^" + std::to_string(reader) + " +Yes'";
    ASSERT_TRUE(Eventually([&] { return !OutputOf(shown).empty(); }));
  }
  /// Polls until the service has "Connected" or "Disconnected" the reader so many times.
  [[nodiscard]] bool Has(const std::string& done, int reader, std::size_t count = 1) const {
    return Traced("Watch - " + done + " slot " + std::to_string(reader * 3 + 1), count);
  }
  void ExpectRead(int reader, std::size_t count = 1) {
    ASSERT_TRUE(Has("Connected", reader, count));
    EXPECT_TRUE(Holds("said.txt", "ann@tessaly.example\n"));
  }

  std::optional<CardService> service_;
  std::map<int, std::unique_ptr<InsertedCard>> in_;
};

TEST_F(RealCards, AreReadOneAtATimeAlsoAfterPcscDied) {
  InsertSeen(1);
  Watch();
  ExpectRead(1);
  InsertSeen(0);
  in_.erase(1);
  ASSERT_TRUE(Has("Disconnected", 1));
  ExpectRead(0);
  EXPECT_EQ(TraceCount("Watch - Event"), 3U) << "of one card at a time";
  service_.reset();
  ASSERT_TRUE(Has("Disconnected", 0)) << "gone with PC/SC";
  in_.erase(0);
  service_.emplace();
  Insert(0);
  ExpectRead(0, 2);
}

TEST_F(RealCards, SeveralModulesInOne) {
  if (OutputOf("dpkg-query -W p11-kit-modules 2>/dev/null").empty()) {
    GTEST_SKIP() << "NOT TESTED on several modules: no p11-kit (package p11-kit-modules)";
  }
  SetVariable("qix:Pkcs11:Module", "p11-kit-proxy.so");
  InsertSeen(0);  // it keeps to the readers that were there when it was initialised
  Watch();
  ExpectRead(0);
  in_.erase(0);
  EXPECT_TRUE(Has("Disconnected", 0));
}

}  // namespace
}  // namespace qixx::testing
