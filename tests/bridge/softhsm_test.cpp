// SoftHSM, a module of other people: no slot events, and slot ids of nine digits and more.
#include <gtest/gtest.h>

#include "tests/bridge/loaded_bridge.h"
#include "tests/end_to_end/desktop.h"
#include "tests/support/eventually.h"
#include "tests/support/openssl.h"

namespace qixx::testing {
namespace {

class SoftHsm : public LoadedBridge {
 protected:
  void SetUp() override {
    if (OutputOf("command -v softhsm2-util pkcs11-tool").empty()) {
      GTEST_SKIP() << "NOT TESTED on SoftHSM: not installed (packages softhsm2, opensc)";
    }
    folder_.Write("tokens/keep", "");
    folder_.Write("softhsm2.conf", "directories.tokendir = " + folder_.Path("tokens") + "\n");
    ASSERT_NE(OutputOf("softhsm2-util --init-token --free --label one --pin 1234 --so-pin 1234"),
              "");
  }
  const ScopedVariable settings_{"SOFTHSM2_CONF", folder_.Path("softhsm2.conf").c_str()};
};

TEST_F(SoftHsm, SlotsAreNumberedAndNewOnesAreEvents) {
  Start("libsofthsm2.so");
  ASSERT_EQ(Slots(), (std::vector<CK_SLOT_ID>{1, 4})) << "the token's, and a free one";
  EXPECT_EQ(Poll(), -1);
  CK_TOKEN_INFO info = {};
  ASSERT_EQ(list_->C_GetTokenInfo(1, &info), CKR_OK);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(info.label), 3), "one");

  CK_UTF8CHAR pin[] = "1234";
  CK_UTF8CHAR label[] = "two                             ";
  ASSERT_EQ(list_->C_InitToken(4, pin, 4, label), CKR_OK);
  EXPECT_TRUE(Eventually([this] { return Poll() == 7; })) << "the next free slot";
  const CK_SESSION_HANDLE session = Open(4);
  CK_SESSION_INFO session_info = {};
  ASSERT_EQ(list_->C_GetSessionInfo(session, &session_info), CKR_OK);
  EXPECT_EQ(session_info.slotID, 4U);
}

TEST_F(SoftHsm, HolderOfItsCertificateReachesTheCommand) {
  Desktop desktop;
  ASSERT_TRUE(MakeCertificate(desktop.Path("ann.der"))) << "the program openssl is needed";
  Start("libsofthsm2.so");
  const CK_SESSION_HANDLE session = Open(1);
  CK_UTF8CHAR pin[] = "1234";
  ASSERT_EQ(list_->C_Login(session, CKU_USER, pin, 4), CKR_OK);
  std::string value = desktop.Home().Read("ann.der");
  CK_OBJECT_CLASS object = CKO_CERTIFICATE;
  CK_CERTIFICATE_TYPE type = CKC_X_509;
  CK_BBOOL yes = CK_TRUE;
  CK_BBOOL no = CK_FALSE;
  std::string name = "ann";
  CK_ATTRIBUTE certificate[] = {{CKA_CLASS, &object, sizeof object},
                                {CKA_CERTIFICATE_TYPE, &type, sizeof type},
                                {CKA_TOKEN, &yes, 1},
                                {CKA_PRIVATE, &no, 1},
                                {CKA_SUBJECT, name.data(), name.size()},
                                {CKA_ID, name.data(), name.size()},
                                {CKA_LABEL, name.data(), name.size()},
                                {CKA_VALUE, value.data(), value.size()}};
  CK_OBJECT_HANDLE made = 0;
  ASSERT_EQ(list_->C_CreateObject(session, certificate, 8, &made), CKR_OK);
  ASSERT_EQ(list_->C_Finalize(nullptr), CKR_OK);

  for (const char* const variable : {"SOFTHSM2_CONF", "PCSCLITE_CSOCK_NAME"}) {
    desktop.SetVariable(variable, ::getenv(variable));
  }
  desktop.Configure(
      "[Pkcs11]\nModule=libsofthsm2.so\n[Command]\nWatch=config Watch\n"
      "[Watch Insert]\n1=" +
      desktop.Echo("%UPN%", "said.txt") + "\n");
  desktop.Start();
  EXPECT_TRUE(desktop.Traced("Watch - Connected slot 1")) << desktop.Report();
  EXPECT_TRUE(desktop.Holds("said.txt", "ann@tessaly.example\n")) << desktop.Report();
  EXPECT_EQ(desktop.Stop(), 0) << desktop.Report();
}

}  // namespace
}  // namespace qixx::testing
