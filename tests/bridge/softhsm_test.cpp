// SoftHSM, a module of other people: no slot events, and slot ids of nine digits and more.
#include <gtest/gtest.h>

#include "tests/bridge/loaded_bridge.h"
#include "tests/support/eventually.h"
#include "tests/support/openssl.h"

namespace qixx::testing {
namespace {

using SoftHsm = LoadedBridge;

TEST_F(SoftHsm, SlotsAreNumberedAndNewOnesAreEvents) {
  if (OutputOf("command -v softhsm2-util").empty()) {
    GTEST_SKIP() << "NOT TESTED on SoftHSM: not installed (package softhsm2)";
  }
  folder_.Write("tokens/keep", "");
  folder_.Write("softhsm2.conf", "directories.tokendir = " + folder_.Path("tokens") + "\n");
  const ScopedVariable settings("SOFTHSM2_CONF", folder_.Path("softhsm2.conf").c_str());
  ASSERT_NE(OutputOf("softhsm2-util --init-token --free --label one --pin 1234 --so-pin 1234"), "");

  Start("libsofthsm2.so");
  ASSERT_EQ(Slots(), (std::vector<CK_SLOT_ID>{1, 4})) << "the token's, and a free one";
  EXPECT_EQ(Poll(), -1);
  CK_UTF8CHAR pin[] = "1234";
  CK_UTF8CHAR label[] = "two                             ";
  ASSERT_EQ(list_->C_InitToken(4, pin, 4, label), CKR_OK);
  EXPECT_TRUE(Eventually([this] { return Poll() == 7; })) << "the next free slot";
}

}  // namespace
}  // namespace qixx::testing
