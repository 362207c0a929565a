// The bridge over the PKCS#11 modules of the distribution, as docs/real-cards.md lists them: which
// slots it shows, whose tokens count, and whether it tells of a card that goes in.
#include <filesystem>
#include <ostream>

#include "tests/bridge/card_service.h"
#include "tests/bridge/loaded_bridge.h"
#include "tests/bridge/piv_card.h"
#include "tests/support/openssl.h"

namespace qixx::testing {
namespace {

constexpr const char* kTpm[] = {"libtpm2_pkcs11.so.1", "libtpm2-pkcs11-1 swtpm"};

struct Row {
  const char* name;
  const char* module;    ///< as the entry `Module` names it
  const char* packages;  ///< where it, and what the test needs, come from
  std::vector<CK_ULONG> slots;
  const char* readers;  ///< the entry `Readers`
  /// Those with a token that counts, from the start: one that cannot be pulled does by name only.
  std::vector<CK_ULONG> tokens;
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
    if (packages == kTpm[1]) StartTpm();
  }
  void StartTpm() {
    folder_.Write("tpm/store/keep", "");
    tpm_.Start("swtpm socket --tpm2 --tpmstate dir=" + folder_.Path("tpm") +
               " --server type=unixio,path=" + socket_ + " --ctrl type=unixio,path=" + socket_ +
               ".ctrl --flags not-need-init,startup-clear");
    ASSERT_TRUE(Eventually([&] { return std::filesystem::exists(socket_ + ".ctrl"); }));
  }
  /// A module without a device of its kind may fail to list any.
  Numbers ListedSlots() {
    CK_ULONG count = 0;
    return list_->C_GetSlotList(CK_FALSE, nullptr, &count) == CKR_OK ? Slots() : Numbers();
  }

  const std::string socket_ = folder_.Path("tpm/s");
  const ScopedVariable softHsm_{"SOFTHSM2_CONF", folder_.Path("softhsm2.conf").c_str()};
  const ScopedVariable tpmStore_{"TPM2_PKCS11_STORE", folder_.Path("tpm/store").c_str()};
  const ScopedVariable tpmSocket_{"TPM2_PKCS11_TCTI", ("swtpm:path=" + socket_).c_str()};
  const ScopedVariable wanted_{"qix:Pkcs11:Readers", GetParam().readers};
  CardService service_;
  Companion tpm_;
};

TEST_P(Modules, ShowsSlotsAndTellsOfWhatGoesIn) {
  const Row& row = GetParam();
  // p11-kit keeps to the readers that were there when it was initialised.
  EXPECT_TRUE(Eventually([&] {
    if (list_ != nullptr) list_->C_Finalize(nullptr);
    Start(row.module);
    return Eventually([&] { return ListedSlots() == row.slots; }, std::chrono::seconds(2));
  })) << ::testing::PrintToString(ListedSlots());
  if (row.slots.empty()) return;
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
                      Row{"SoftHsm", "libsofthsm2.so", "softhsm2", {1}, nullptr, {}},
                      Row{"SoftHsmByName", "libsofthsm2.so", "softhsm2", {1}, "softhsm*", {1}},
                      Row{"Several", "p11-kit-proxy.so", kProxied, {1, 4, 7}, nullptr, {}, 1},
                      Row{"Tpm", kTpm[0], kTpm[1], {1}, nullptr, {}},
                      Row{"TpmByName", kTpm[0], kTpm[1], {1}, "*", {1}},
                      Row{"YubiKey", "libykcs11.so.2", "ykcs11", {}, nullptr, {}}),
    [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace qixx::testing
