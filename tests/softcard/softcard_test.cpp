// The script for the soft card's readers, run as a user would run it.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/environment.h"
#include "tests/support/openssl.h"
#include "tests/support/temporary_folder.h"

namespace qixx::testing {
namespace {

TEST(CardScript, InsertsAndRemoves) {
  const TemporaryFolder folder;
  const ScopedVariable readers("QIXX_SOFTCARD", folder.Path().c_str());
  const std::string file = folder.Write(
      "files/a b.cer",
      "-----BEGIN CERTIFICATE-----\nMBUwE6ADAgECAgISNDAAMAFpMAAwAXM=\n-----END CERTIFICATE-----\n");
  const auto script = [](const std::string& arguments) {
    return OutputOf(CARD_SCRIPT " " + arguments + " 2>&1; echo $?");
  };
  EXPECT_EQ(script("insert 1"), "0\n");
  EXPECT_EQ(script("insert 1 '" + file + "'"), "0\n") << "a card changed for another one";
  EXPECT_EQ(folder.Read("1/card/a b.pem"), folder.Read("files/a b.cer"));
  EXPECT_EQ(script("remove 1"), "0\n");
  EXPECT_EQ(script("remove 1"), "card: there is no card in slot 1\n1\n");
  EXPECT_TRUE(script("--help").starts_with("usage: ") && script("--help").ends_with("\n0\n"));
  EXPECT_TRUE(script("insert ../x").starts_with("card: usage: "));
  EXPECT_TRUE(std::filesystem::is_empty(folder.Path("1"))) << "nothing is left behind";
}

}  // namespace
}  // namespace qixx::testing
