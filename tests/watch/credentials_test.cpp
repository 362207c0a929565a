#include "watch/credentials.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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
    watch::CleanCardText(text);
    EXPECT_EQ(text, cleaned);
  }
  EXPECT_EQ(watch::SplitPrincipalName(">@b@c").user, "_");
  EXPECT_EQ(watch::SplitPrincipalName("a@>").domain, "_");
  std::string all;
  for (const watch::SubjectPlaceholder& placeholder :
       watch::SubjectPlaceholders("cn=Lee\\, Ann , O=>+CN=other,ou=,1.2.3=x=y,broken,c=DE")) {
    all += placeholder.name + placeholder.value + ";";
  }
  EXPECT_EQ(all, "%OID.cn%Lee, Ann;%OID.O%_;%OID.ou%;%OID.1.2.3%x=y;");
}

TEST(Match, DecidesWhichCertificateCounts) {
  // In slot 5 is a card with two certificates, of which the second is made for logon.
  const Recipe bob{.subject = Part("cn", "Bob"), .extensions = ""};
  FakeCard card;
  card.slots = {{.id = 1}, {.id = 5}};
  card.slots[1].objects = {CertificateObject(bob.Build()), CertificateObject(Recipe().Build())};
  const FakeModule module(QIXX_FAKE_PLAIN, CKR_OK, &card.List());
  EXPECT_TRUE(pkcs11::Pkcs11().SetLibraryPath(QIXX_FAKE_PLAIN));
  const std::tuple<const char*, bool, bool> rows[] = {
      {"cn=nobody", true, false},          {"cn=ann lee|ff", true, true},
      {"cn=ann lee|06", true, true},       {"cn=ann lee|01", false, false},
      {"cn=bob|05", false, true},          {"cn=ann lee|0500", true, false},
      {"subject|cn=ann lee", true, false},
  };
  for (const auto& [match, found, present] : rows) {
    SCOPED_TRACE(match);
    char upn[runtime::kTextSize];
    std::uint64_t certificate = 0;
    EXPECT_EQ(watch::FindLogonCredential(match, certificate, upn, {}, {}), found);
    EXPECT_STREQ(upn, found ? "ann@example.org" : "");
    EXPECT_EQ(watch::IsMatchingCardPresent(match), present);
  }
  // A simulated insert never reaches for a card, not even for one in slot 0.
  card.slots.push_back({.id = 0});
  const TraceCapture trace;
  EXPECT_FALSE(watch::SetCommand(0, "-registry there", true));
  EXPECT_FALSE(watch::ExecuteCommand(0, true, "extern /none.so,x", 0, true, true));
  EXPECT_FALSE(trace.Has("Helper - Failed to load '/none.so'"));
  pkcs11::Pkcs11().Release();
}

TEST(ConfigFile, GetsWhatANameMeansThroughALinkThatStays) {
  const std::tuple<const char*, const char*, const char*, const char*> rows[] = {
      {"[A]\nusername=1\nx=2\n[B]\nUSERNAME=3\n", "Username", "v",
       "[A]\nusername=v\nx=2\n[B]\nUSERNAME=v\n"},
      {"; no section\n", "Domain", "v", "; no section\n"},
      {"%A%%A%\r\n<%A%%a%>", "%A%", "v", "vv\r\n<v%a%>"},
      {"%OID.CN% %OID.cn%x", "%OID.cn%", "v", "v vx"},
      {"-%%X%X%", "%X%", "", "-"},
      {"a%%X%%b%X%", "%X%", "X", "aXbX"},
      {"%X%%-%X%", "%X%", "%X%%X", "%X%%X%-%X%%X"},
  };
  for (const auto& [before, name, value, after] : rows) {
    const TemporaryFolder folder;
    const std::string link = folder.Path("link.conf");
    folder.Write("real.conf", before);
    std::filesystem::create_symlink("real.conf", link);
    EXPECT_TRUE(watch::BackupOrRestoreConfigFile(link.c_str()));
    watch::SetConfigValue(link.c_str(), name, value);
    EXPECT_EQ(folder.Read("real.conf"), after);
    EXPECT_TRUE(watch::BackupOrRestoreConfigFile(link.c_str()));
    EXPECT_EQ(folder.Read("real.conf"), before);
    EXPECT_TRUE(std::filesystem::is_symlink(link));
    watch::SetConfigValue(folder.Path("missing.conf").c_str(), name, value);
    EXPECT_FALSE(std::filesystem::exists(folder.Path("missing.conf")));
    std::filesystem::remove(folder.Path("real.conf"));
    EXPECT_FALSE(watch::BackupOrRestoreConfigFile(link.c_str()));
    EXPECT_TRUE(std::filesystem::is_symlink(link)) << "although it leads nowhere";
  }
}

TEST(ConfigFile, TwoServicesLoseNoValues) {
  constexpr int kKeys = 50;
  const TemporaryFolder folder;
  const std::string file = folder.Write("both.conf", "[A]\nx=1\n");
  const auto setAll = [&file](char head) {
    for (int i = 0; i < kKeys; ++i)
      watch::SetConfigValue(file.c_str(), head + std::to_string(i), "v");
  };
  const pid_t other = ::fork();
  if (other == 0) {
    setAll('b');
    ::_exit(0);
  }
  setAll('a');
  ::waitpid(other, nullptr, 0);
  const std::string text = folder.Read("both.conf");
  EXPECT_EQ(std::count(text.begin(), text.end(), 'v'), 2 * kKeys) << text;
}

}  // namespace
}  // namespace qixx::testing
