// The bridge over the PKCS#11 modules of the distribution, as docs/real-cards.md lists them: which
// slots it shows, whose tokens count, and whether it tells of a card that goes in.
#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
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

class Modules;

struct Row {
  const char* name;
  const char* module;    ///< as the entry `Module` names it
  const char* packages;  ///< where it, and what the test needs, come from
  /// Makes what the module is to find.
  void (Modules::*prepare)();
  std::vector<CK_ULONG> slots;
  const char* readers;  ///< the entry `Readers`
  /// Those with a token that counts, from the start: one that cannot be pulled does by name only.
  std::vector<CK_ULONG> tokens;
  long event = 0;  ///< the slot of a card that goes in, 0 where the test has none of its kind

  friend void PrintTo(const Row& row, std::ostream* out) { *out << row.module; }
};

class Modules : public LoadedModule, public ::testing::WithParamInterface<Row> {
 public:
  void Nothing() {}
  void Readers() { service_.Start(); }
  void SoftHsm() {
    folder_.Write("tokens/keep", "");
    Set("SOFTHSM2_CONF",
        folder_.Write("softhsm2.conf", "directories.tokendir = " + folder_.Path("tokens") + "\n"));
  }
  void ReadersAndSoftHsm() {
    Readers();
    SoftHsm();
  }
  void Tpm() {
    folder_.Write("tpm/store/keep", "");
    const std::string socket = folder_.Path("tpm/s");
    tpm_ = ::fork();
    if (tpm_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      const int quiet = ::open("/dev/null", O_RDWR);
      for (const int descriptor : {0, 1, 2}) ::dup2(quiet, descriptor);
      ::execlp("swtpm", "swtpm", "socket", "--tpm2", "--tpmstate",
               ("dir=" + folder_.Path("tpm")).c_str(), "--server",
               ("type=unixio,path=" + socket).c_str(), "--ctrl",
               ("type=unixio,path=" + socket + ".ctrl").c_str(), "--flags",
               "not-need-init,startup-clear", nullptr);
      ::_exit(127);
    }
    ASSERT_TRUE(Eventually([&] { return std::filesystem::exists(socket + ".ctrl"); }));
    Set("TPM2_PKCS11_STORE", folder_.Path("tpm/store"));
    Set("TPM2_PKCS11_TCTI", "swtpm:path=" + socket);
  }

  void Card() {
    ASSERT_TRUE(Eventually([this] {
      card_ = std::make_unique<InsertedCard>(kFirstReaderPort, "");
      return card_->IsIn();
    })) << "the reader does not listen";
  }

 protected:
  void SetUp() override {
    const std::string missing = OutputOf(std::string("for package in ") + GetParam().packages +
                                         "; do [ \"$(dpkg-query -W -f='${db:Status-Status}' "
                                         "$package 2>&1)\" = installed ] || echo $package; done");
    if (!missing.empty()) GTEST_SKIP() << "NOT TESTED on " << GetParam().module << ": " << missing;
    if (const std::string fault = CardService::EnterWorld(); !fault.empty()) {
      GTEST_SKIP() << "NOT TESTED on " << GetParam().module << ": " << fault;
    }
  }
  void TearDown() override {
    if (tpm_ == 0) return;
    ::kill(tpm_, SIGKILL);
    ::waitpid(tpm_, nullptr, 0);
  }
  void Set(const std::string& name, const std::string& value) {
    variables_.push_back(std::make_unique<ScopedVariable>(name.c_str(), value.c_str()));
  }

  /// A module without a device of its kind may fail to list any.
  std::vector<CK_ULONG> ListedSlots() {
    CK_ULONG count = 0;
    return list_->C_GetSlotList(CK_FALSE, nullptr, &count) == CKR_OK ? Slots()
                                                                     : std::vector<CK_ULONG>();
  }

 private:
  std::vector<std::unique_ptr<ScopedVariable>> variables_;
  CardService service_;
  std::unique_ptr<InsertedCard> card_;
  pid_t tpm_ = 0;
};

TEST_P(Modules, ShowsSlotsAndTellsOfWhatGoesIn) {
  const Row& row = GetParam();
  ASSERT_NO_FATAL_FAILURE((this->*row.prepare)());
  Set("HOME", folder_.Path());
  Set("qix:Pkcs11:Module", row.module);
  if (*row.readers != '\0') Set("qix:Pkcs11:Readers", row.readers);
  Set("qix:Trace:bridge", folder_.Path("bridge.log"));
  Start(BRIDGE);
  EXPECT_TRUE(Eventually([&] { return ListedSlots() == row.slots; }))
      << ::testing::PrintToString(ListedSlots()) << folder_.Read("bridge.log");
  while (Poll() >= 0) continue;
  if (row.slots.empty()) return;
  EXPECT_EQ(Slots(CK_TRUE), row.tokens);
  if (row.event == 0) return;
  ASSERT_NO_FATAL_FAILURE(Card());
  EXPECT_TRUE(Eventually([&] { return Poll() == row.event; })) << folder_.Read("bridge.log");
}

INSTANTIATE_TEST_SUITE_P(
    All, Modules,
    ::testing::Values(
        Row{"OpenSc", "opensc-pkcs11.so", "opensc", &Modules::Readers, {1, 4}, "", {}, 1},
        Row{"SoftHsm", "libsofthsm2.so", "softhsm2", &Modules::SoftHsm, {1}, "", {}},
        Row{"SoftHsmByName", "libsofthsm2.so", "softhsm2", &Modules::SoftHsm, {1}, "softhsm*", {1}},
        Row{"SeveralByProxy",
            "p11-kit-proxy.so",
            "p11-kit-modules opensc softhsm2",
            &Modules::ReadersAndSoftHsm,
            {1, 4, 7},
            "",
            {},
            1},
        Row{"Tpm", "libtpm2_pkcs11.so.1", "libtpm2-pkcs11-1 swtpm", &Modules::Tpm, {1}, "", {}},
        Row{"TpmByName",
            "libtpm2_pkcs11.so.1",
            "libtpm2-pkcs11-1 swtpm",
            &Modules::Tpm,
            {1},
            "*",
            {1}},
        Row{"YubiKey", "libykcs11.so.2", "ykcs11", &Modules::Readers, {}, "", {}}),
    [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace qixx::testing
