#include "watch/credentials.h"

#include <filesystem>

#include "tests/support/fake_card.h"
#include "tests/support/recipes.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"
#include "watch/command.h"
#include "watch/set_command.h"

namespace qixx::testing {
namespace {

TEST(CardText, CannotAddALineAnArgumentOrARedirection) {
  const std::pair<std::string, std::string> rows[] = {
      {std::string("a\nb\0\tc\x7f", 7), "a_b__c_"},
      {"\" > /etc/x", "_ _ /etc/x"},
      {"> a >b b> >", "_ a >b b> _"},
      {"a >%DOMAIN% /etc/x", "a _%DOMAIN% /etc/x"},
      {">>\xc3\xa9\xff", ">>\xc3\xa9\xff"},
  };
  for (auto [text, cleaned] : rows) {
    CleanCardText(text);
    EXPECT_EQ(text, cleaned);
  }
  EXPECT_EQ(SplitPrincipalName(">@b@c").user, "_");
  EXPECT_EQ(SplitPrincipalName("a@>").domain, "_");
  std::string all;
  for (const SubjectPlaceholder& placeholder :
       SubjectPlaceholders("cn=Lee\\, Ann , O=>+CN=other,ou=,1.2.3=x=y,broken,c=DE")) {
    all += placeholder.name + placeholder.value + ";";
  }
  EXPECT_EQ(all, "%OID.cn%Lee, Ann;%OID.O%_;%OID.ou%;%OID.1.2.3%x=y;");
}

/// Two readers; in slot 5 is a card with two certificates, of which the second is made for logon.
class CardService : public ::testing::Test {
 protected:
  CardService() {
    const Recipe bob{.subject = Part("cn", "Bob"), .extensions = ""};
    card.slots = {{.id = 1}, {.id = 5, .description = std::string(kSlotIdentitySize, '2')}};
    card.slots[1].objects = {CertificateObject(bob.Build()), CertificateObject(Recipe().Build())};
    EXPECT_TRUE(Pkcs11().SetLibraryPath(QIXX_FAKE_PLAIN));
    EXPECT_EQ(Pkcs11().Initialize(nullptr), CKR_OK);
  }
  ~CardService() override {
    Pkcs11().Finalize(nullptr);
    Pkcs11().Release();
  }

  FakeCard card;
  FakeModule module{QIXX_FAKE_PLAIN, CKR_OK, &card.List()};
};

TEST_F(CardService, MatchDecidesWhichCertificateCounts) {
  const std::tuple<const char*, bool, bool> rows[] = {
      {"", true, true},
      {"cn=nobody", true, false},
      {"cn=ann lee|ff", true, true},
      {"cn=ann lee|06", true, true},
      {"cn=ann lee|01", false, false},
      {"cn=bob|05", false, true},
      {"cn=ann lee|0500", true, false},
      {"subject|cn=ann lee", true, false},
  };
  for (const auto& [match, found, present] : rows) {
    SCOPED_TRACE(match);
    char upn[kTextSize];
    std::uint64_t certificate = 0;
    EXPECT_EQ(FindLogonCredential(match, certificate, upn, {}, {}), found);
    EXPECT_STREQ(upn, found ? "ann@example.org" : "");
    EXPECT_EQ(IsMatchingCardPresent(match), present);
  }
}

TEST_F(CardService, LogonSlotIsTheOneOfTheRecordedIdentity) {
  SetCredentialQuestion([](const char* user, auto identity, auto, auto&) {
    return std::string_view(user).copy(identity.data(), identity.size()) != 0;
  });
  std::size_t length = 0;
  const std::string second(kSlotIdentitySize, '2');
  for (const auto& [identity, expected] : {std::pair(second, 5U), {"Second", 0U}, {"", 7U}}) {
    CK_SLOT_ID slot = 7;
    EXPECT_EQ(FindLogonSlot(identity.c_str(), {{1, 5}}, slot, {}, length), expected != 7);
    EXPECT_EQ(slot, expected) << identity;
  }
  SetCredentialQuestion(nullptr);
}

TEST_F(CardService, SimulatedInsertNeverReachesForTheCard) {
  card.slots.push_back({.id = 0});
  const TraceCapture trace;
  EXPECT_TRUE(SetCommand(5, "-registry there", true));
  EXPECT_FALSE(SetCommand(0, "-registry there", true));
  EXPECT_FALSE(ExecuteCommand(0, true, "extern /none.so,x", 0, true, true));
  EXPECT_FALSE(trace.Has("Helper - Failed to load '/none.so'"));
}

TEST(ConfigFile, GetsWhatANameMeansAndNothingElse) {
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {"[A]\nusername=1\nx=2\n[B]\nUSERNAME=3\n", "Username",
       "[A]\nusername=v\nx=2\n[B]\nUSERNAME=v\n"},
      {"; no section\n", "Domain", "; no section\n"},
      {"%A%%A%\r\n<%A%%a%>", "%A%", "vv\r\n<v%a%>"},
      {"%OID.CN% %OID.cn%x", "%OID.cn%", "v vx"},
  };
  for (const auto& [before, name, after] : rows) {
    const TemporaryFolder folder;
    SetConfigValue(folder.Write("file.conf", before).c_str(), name, "v");
    EXPECT_EQ(folder.Read("file.conf"), after);
  }
}

TEST(ConfigFile, LinkStaysOneAndAMissingFileIsNotMade) {
  const TemporaryFolder folder;
  folder.Write("real.conf", "[A]\nUsername=\n%UPN%\n");
  for (const char* name : {"link.conf", "missing.conf"}) {
    const std::string file = folder.Path(name);
    const bool link = *name == 'l';
    if (link) std::filesystem::create_symlink("real.conf", file);
    EXPECT_EQ(BackupOrRestoreConfigFile(file.c_str()), link);
    for (const char* key : {"%UPN%", "Username"}) SetConfigValue(file.c_str(), key, "ann");
    EXPECT_EQ(folder.Read("real.conf"), "[A]\nUsername=ann\nann\n");
    EXPECT_EQ(std::filesystem::is_symlink(file), link);
    EXPECT_EQ(std::filesystem::exists(file), link);
  }
}

TEST(ConfigFile, ReplacementAlwaysEnds) {
  const std::tuple<std::string, const char*, std::string_view, const char*> rows[] = {
      {"%%X%X%", "%X%", "", ""},
      {"a%%X%%b%X%", "%X%", "X", "aXbX"},
      {"%X%%-%X%", "%X%", "%X%%X", "%X%%X%-%X%%X"},
      {"aaaabb", "aab", "b", "bb"},
  };
  for (auto [text, name, value, result] : rows) {
    ReplaceAll(text, name, value);
    EXPECT_EQ(text, result);
  }
}

}  // namespace
}  // namespace qixx::testing
