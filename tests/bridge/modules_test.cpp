// The bridge over PKCS#11 modules of the distribution: which slots it shows, whose tokens count,
// and whether it tells of a card that goes in.
#include <filesystem>
#include <ostream>

#include "tests/bridge/card_service.h"
#include "tests/bridge/loaded_bridge.h"
#include "tests/bridge/piv_card.h"
#include "tests/support/openssl.h"

namespace qixx::testing {
namespace {

struct Row {
  const char* name;
  const char* module;    ///< as the entry `Module` names it
  const char* packages;  ///< where it, and what the test needs, come from
  std::vector<CK_ULONG> slots;
  const char* readers;           ///< the entry `Readers`
  std::vector<CK_ULONG> tokens;  ///< those with one that counts, from the start
  long event = 0;  ///< the slot of a card that goes in, 0 where the test has none of its kind

  friend void PrintTo(const Row& row, std::ostream* out) { *out << row.module; }
};

class Modules : public LoadedBridge, public ::testing::WithParamInterface<Row> {
 protected:
  void SetUp() override {
    const auto& [name, module, packages, slots, readers, tokens, event] = GetParam();
    std::string missing = OutputOf("dpkg-query -W "s + packages + " 2>&1 >/dev/null; true");
    if (missing.empty()) missing = CardService::EnterWorld();
    if (!missing.empty()) GTEST_SKIP() << "NOT TESTED on " << module << ": " << missing;
    service_.Start();
    folder_.Write("tokens/keep", "");
    folder_.Write("softhsm2.conf", "directories.tokendir = " + folder_.Path("tokens") + "\n");
  }
  const ScopedVariable softHsm_{"SOFTHSM2_CONF", folder_.Path("softhsm2.conf").c_str()};
  const ScopedVariable wanted_{"qix:Pkcs11:Readers", GetParam().readers};
  CardService service_;
};

TEST_P(Modules, ShowsSlotsAndTellsOfWhatGoesIn) {
  const Row& row = GetParam();
  // p11-kit keeps to the readers that were there when it was initialised.
  EXPECT_TRUE(Eventually([&] {
    if (list_ != nullptr) list_->C_Finalize(nullptr);
    Start(row.module);
    return Eventually([&] { return Slots() == row.slots; }, std::chrono::seconds(2));
  })) << ::testing::PrintToString(Slots());
  while (Poll() >= 0) continue;
  EXPECT_EQ(Slots(CK_TRUE), row.tokens);
  if (row.event == 0) return;
  const auto card = CardIn(0);
  ASSERT_NE(card, nullptr) << "the reader does not listen";
  EXPECT_TRUE(Eventually([&] { return Poll() == row.event; }));
}

constexpr const char* kProxied = "p11-kit-modules opensc softhsm2";

INSTANTIATE_TEST_SUITE_P(
    All, Modules,
    ::testing::Values(Row{"OpenSc", "opensc-pkcs11.so", "opensc", {1, 4}, nullptr, {}, 1},
                      Row{"SoftHsmByName", "libsofthsm2.so", "softhsm2", {1}, "softhsm*", {1}},
                      Row{"Several", "p11-kit-proxy.so", kProxied, {1, 4, 7}, nullptr, {}, 1}),
    [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace qixx::testing
