// The bridge over the PKCS#11 modules of the distribution, as docs/real-cards.md lists them: which
// slots it shows, whose tokens count, and whether it tells of a card that goes in.
#include <filesystem>
#include <memory>
#include <ostream>

#include "tests/bridge/card_service.h"
#include "tests/bridge/piv_card.h"
#include "tests/support/eventually.h"
#include "tests/support/loaded_module.h"
#include "tests/support/openssl.h"

namespace qixx::testing {
namespace {

struct Row {
  const char* name;
  const char* module;    ///< as the entry `Module` names it
  const char* packages;  ///< where it, and what the test needs, come from
  const char* found;     ///< what the module is to find: "readers", "softhsm", "tpm"
  std::vector<CK_ULONG> slots;
  const char* readers;  ///< the entry `Readers`
  /// Those with a token that counts, from the start: one that cannot be pulled does by name only.
  std::vector<CK_ULONG> tokens;
  long event = 0;  ///< the slot of a card that goes in, 0 where the test has none of its kind

  friend void PrintTo(const Row& row, std::ostream* out) { *out << row.module; }
};

class Modules : public LoadedModule, public ::testing::WithParamInterface<Row> {
 protected:
  void SetUp() override {
    std::string missing =
        OutputOf(std::string("dpkg-query -W ") + GetParam().packages + " 2>&1 >/dev/null; true");
    if (missing.empty()) missing = CardService::EnterWorld();
    if (!missing.empty()) GTEST_SKIP() << "NOT TESTED on " << GetParam().module << ": " << missing;
    const std::string_view found = GetParam().found;
    if (found.find("readers") != found.npos) service_.Start();
    if (found.find("softhsm") != found.npos) MakeSoftHsm();
    if (found.find("tpm") != found.npos) MakeTpm();
  }
  void MakeSoftHsm() {
    folder_.Write("tokens/keep", "");
    Set("SOFTHSM2_CONF",
        folder_.Write("softhsm2.conf", "directories.tokendir = " + folder_.Path("tokens") + "\n"));
  }
  void MakeTpm() {
    folder_.Write("tpm/store/keep", "");
    const std::string socket = folder_.Path("tpm/s");
    tpm_.Start("swtpm socket --tpm2 --tpmstate dir=" + folder_.Path("tpm") +
               " --server type=unixio,path=" + socket + " --ctrl type=unixio,path=" + socket +
               ".ctrl --flags not-need-init,startup-clear");
    ASSERT_TRUE(Eventually([&] { return std::filesystem::exists(socket + ".ctrl"); }));
    Set("TPM2_PKCS11_STORE", folder_.Path("tpm/store"));
    Set("TPM2_PKCS11_TCTI", "swtpm:path=" + socket);
  }
  void Set(const std::string& name, const std::string& value) {
    variables_.push_back(std::make_unique<ScopedVariable>(name, value.c_str()));
  }
  /// A module without a device of its kind may fail to list any.
  Numbers ListedSlots() {
    CK_ULONG count = 0;
    return list_->C_GetSlotList(CK_FALSE, nullptr, &count) == CKR_OK ? Slots() : Numbers();
  }

  std::vector<std::unique_ptr<ScopedVariable>> variables_;
  CardService service_;
  Companion tpm_;
};

TEST_P(Modules, ShowsSlotsAndTellsOfWhatGoesIn) {
  const Row& row = GetParam();
  Set("HOME", folder_.Path());
  Set("qix:Pkcs11:Module", row.module);
  if (*row.readers != '\0') Set("qix:Pkcs11:Readers", row.readers);
  Start(BRIDGE);
  EXPECT_TRUE(Eventually([&] { return ListedSlots() == row.slots; }))
      << ::testing::PrintToString(ListedSlots());
  if (row.slots.empty()) return;
  while (Poll() >= 0) continue;
  EXPECT_EQ(Slots(CK_TRUE), row.tokens);
  if (row.event == 0) return;
  const auto card = CardIn(0);
  ASSERT_NE(card, nullptr) << "the reader does not listen";
  EXPECT_TRUE(Eventually([&] { return Poll() == row.event; }));
}

constexpr const char* kTpm[] = {"libtpm2_pkcs11.so.1", "libtpm2-pkcs11-1 swtpm"};
constexpr const char* kProxied = "p11-kit-modules opensc softhsm2";

INSTANTIATE_TEST_SUITE_P(
    All, Modules,
    ::testing::Values(
        Row{"OpenSc", "opensc-pkcs11.so", "opensc", "readers", {1, 4}, "", {}, 1},
        Row{"SoftHsm", "libsofthsm2.so", "softhsm2", "softhsm", {1}, "", {}},
        Row{"SoftHsmByName", "libsofthsm2.so", "softhsm2", "softhsm", {1}, "softhsm*", {1}},
        Row{"Several", "p11-kit-proxy.so", kProxied, "readers softhsm", {1, 4, 7}, "", {}, 1},
        Row{"Tpm", kTpm[0], kTpm[1], "tpm", {1}, "", {}},
        Row{"TpmByName", kTpm[0], kTpm[1], "tpm", {1}, "*", {1}},
        Row{"YubiKey", "libykcs11.so.2", "ykcs11", "readers", {}, "", {}}),
    [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace qixx::testing
