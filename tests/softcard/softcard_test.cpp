// The module as a program sees it: loaded by its path, called through its function list; then the
// script for the cards, run as a user would run it.
#include <sys/stat.h>

#include <filesystem>

#include "tests/support/loaded_module.h"
#include "tests/support/openssl.h"

namespace qixx::testing {
namespace {

using namespace std::string_literals;

/// A certificate up to its subject "s": serial number 0x1234, issuer "i".
constexpr const char* kHolderPem =
    "-----BEGIN CERTIFICATE-----\nMBUwE6ADAgECAgISNDAAMAFpMAAwAXM=\n-----END CERTIFICATE-----\n";

class SoftCard : public LoadedModule {
 protected:
  void Insert(const std::string& slot) { folder_.Write(slot + "/card/holder.pem", kHolderPem); }
  std::string Read(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) {
    std::string value(99, '\0');
    CK_ATTRIBUTE attribute{type, value.data(), value.size()};
    EXPECT_EQ(list_->C_GetAttributeValue(session, object, &attribute, 1), CKR_OK) << type;
    return value.substr(0, attribute.ulValueLen);
  }

  const ScopedVariable readers_{"QIXX_SOFTCARD", folder_.Path().c_str()};
};

TEST_F(SoftCard, HostileFilesAreBoundedAndPassedOver) {
  Start(SOFTCARD_SUITE);
  const std::pair<const char*, std::string> files[] = {
      {"1/card/endless length.der", "\x30\x08\x30\x06\xA0\x84\xFF\xFF\xFF\xFF"},
      {"1/card/stray byte.pem", "-----BEGIN CERTIFICATE-----A*A-----END CERTIFICATE-----"},
      {"1/card/largest.der", std::string(65536, '\x30')},
      {"1/card/too large.der", std::string(65537, '\x30')}};
  for (const auto& [name, content] : files) folder_.Write(name, content);
  ASSERT_EQ(::mkfifo(folder_.Path("1/card/pipe.der").c_str(), 0600), 0);
  EXPECT_EQ(Search(Open(1)).size(), 2U);
  folder_.Write("2/card/two.pem", "text\n"s + kHolderPem + kHolderPem);
  const CK_SESSION_HANDLE session = Open(2);
  ASSERT_EQ(Search(session).size(), 2U);
  EXPECT_EQ(Read(session, Search(session)[1], CKA_ISSUER), "\x30\x01i");
}

TEST_F(SoftCard, ScriptInsertsAndRemoves) {
  const std::string file = folder_.Write("files/a b.cer", kHolderPem);
  const auto script = [](const std::string& arguments) {
    return OutputOf(CARD_SCRIPT " " + arguments + " 2>&1; echo $?");
  };
  EXPECT_EQ(script("insert 1"), "0\n");
  EXPECT_EQ(script("insert 1 '" + file + "'"), "0\n") << "a card changed for another one";
  EXPECT_EQ(folder_.Read("1/card/a b.pem"), kHolderPem);
  EXPECT_EQ(script("remove 1"), "0\n");
  EXPECT_EQ(script("remove 1"), "card: there is no card in slot 1\n1\n");
  EXPECT_TRUE(script("--help").starts_with("usage: ") && script("--help").ends_with("\n0\n"));
  EXPECT_TRUE(script("insert ../x").starts_with("card: usage: "));
  EXPECT_TRUE(std::filesystem::is_empty(folder_.Path("1"))) << "nothing is left behind";
}

}  // namespace
}  // namespace qixx::testing
