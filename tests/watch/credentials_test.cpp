#include "watch/credentials.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"
#include "watch/set_command.h"

namespace qixx::testing {
namespace {

namespace fs = std::filesystem;

TEST(CardText, CannotAddALineAnArgumentOrARedirection) {
  const std::pair<std::string, std::string> rows[] = {
      {"Ann Lee <ann@x>", "Ann Lee <ann@x>"},
      {"a\nb\r\tc\x7f", "a_b__c_"},
      {std::string("a\0b", 3), "a_b"},
      {"\" > /etc/x", "_ _ /etc/x"},
      {"> a >b b> >", "_ a >b b> _"},
      {">", "_"},
      {">>", ">>"},
      {"\xc3\xa9\xff", "\xc3\xa9\xff"},
  };
  for (auto [text, cleaned] : rows) {
    CleanCardText(text);
    EXPECT_EQ(text, cleaned);
  }
}

TEST(CardText, PartsAreSplitAndCleanedAgain) {
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {"ann", "ann", ""}, {"a@b@c", "a", "b@c"}, {"@", "", ""}, {">@>", "_", "_"}};
  for (const auto& [upn, user, domain] : rows) {
    const LogonName name = SplitPrincipalName(upn);
    EXPECT_EQ(name.user, user) << upn;
    EXPECT_EQ(name.domain, domain) << upn;
  }
  std::string all;
  for (const SubjectPlaceholder& placeholder :
       SubjectPlaceholders("cn=Lee\\, Ann , O=>+CN=other,ou=,1.2.3=x=y,broken,c=DE")) {
    all += placeholder.name + placeholder.value + ";";
  }
  EXPECT_EQ(all, "%OID.cn%Lee, Ann;%OID.O%_;%OID.ou%;%OID.1.2.3%x=y;");
}

TEST(MatchText, NameAndValueAreSplitAtTheLastBar) {
  const std::string longest(kTextSize - 1, 'n');
  const struct {
    std::string match;
    bool accepted;
    std::string name;
    std::vector<std::uint8_t> value;
  } rows[] = {
      {"cn=ann", true, "cn=ann", {}},  {"subject|cn=ann|ff", true, "subject|cn=ann", {255}},
      {"subject|cn=x", false, "", {}}, {"cn=ann|", true, "cn=ann", {}},
      {"|1f3", true, "", {0x1f}},      {"cn=ann|0102", false, "", {}},
      {longest, true, longest, {}},    {longest + "n", false, "", {}},
  };
  for (const auto& row : rows) {
    char name[kTextSize] = "";
    std::uint8_t value[2];
    std::size_t length = 0;
    EXPECT_EQ(ParseMatchText(row.match, name, value, length), row.accepted) << row.match;
    EXPECT_EQ(name, row.name);
    EXPECT_EQ(std::vector<std::uint8_t>(value, value + length), row.value) << row.match;
  }
}

TEST(Placeholders, WithoutACardTextsStayAsTheyAre) {
  const std::pair<const char*, const char*> rows[] = {
      {"/bin/true", nullptr},
      {"/bin/true 100% -pin 12", "Watch - Expanded: '/bin/true 100% -pin **'"},
      {"echo %upn% %OID.cn%", "Watch - Expanded: 'echo %upn% %OID.cn%'"},
  };
  for (const auto& [before, line] : rows) {
    char text[512];
    CopyTextCut(text, before);
    const TraceCapture trace;
    ExpandLogonPlaceholders("", text);
    EXPECT_STREQ(text, before);
    if (line == nullptr) {
      EXPECT_TRUE(trace.Lines().empty());
    } else {
      EXPECT_EQ(trace.Lines().back(), line);
    }
  }
  EXPECT_TRUE(IsMatchingCardPresent(""));
  EXPECT_FALSE(IsMatchingCardPresent("cn=nobody"));
}

TEST(LogonSlot, IsZeroUnlessASlotHasTheRecordedIdentity) {
  CK_SLOT_ID slot = 7;
  const CK_SLOT_ID slots[] = {1, 4};
  std::uint8_t certificate[4];
  std::size_t length = 0;
  EXPECT_FALSE(FindLogonSlot("ann", slots, slot, certificate, length));
  EXPECT_EQ(slot, 7U);
  SetCredentialQuestion([](const char* user, std::span<char, kSlotIdentitySize> /*identity*/,
                           std::span<std::uint8_t> /*area*/, std::size_t& size) {
    size = 1;
    return std::string_view(user) == "ann";
  });
  EXPECT_TRUE(FindLogonSlot("ann", slots, slot, certificate, length));
  EXPECT_EQ(slot, 0U);
  EXPECT_EQ(length, 1U);
  SetCredentialQuestion(nullptr);
}

TEST(ConfigFile, GetsWhatANameMeansAndNothingElse) {
  const struct {
    const char* what;
    const char* before;
    const char* name;
    const char* after;
  } rows[] = {
      {"every entry of the name", "[A]\nusername=1\nx=2\n[B]\nUSERNAME=3\n", "Username",
       "[A]\nusername=v\nx=2\n[B]\nUSERNAME=v\n"},
      {"a new entry in the first section", "[A]\nx=1\n[B]\ny=2\n", "Domain",
       "[A]\nx=1\nDomain=v\n[B]\ny=2\n"},
      {"no section", "; nothing here\n", "Domain", "; nothing here\n"},
      {"every placeholder", "%A%%A%\r\n<%A%%a%>", "%A%", "vv\r\n<v%a%>"},
      {"keys of a subject in any case", "%OID.CN% %OID.cn%x", "%OID.cn%", "v vx"},
  };
  for (const auto& row : rows) {
    const TemporaryFolder folder;
    SetConfigValue(folder.Write("file.conf", row.before).c_str(), row.name, "v");
    EXPECT_EQ(folder.Read("file.conf"), row.after) << row.what;
  }
}

TEST(ConfigFile, KeepsLinksAndPermissionsAndIsNotMade) {
  const TemporaryFolder folder;
  const std::string text = "[A]\nUsername=\n%UPN%\n";
  const std::string file = folder.Write("real.conf", text);
  fs::permissions(file, fs::perms::owner_all);
  const std::string link = folder.Path("link.conf");
  fs::create_symlink("real.conf", link);

  EXPECT_TRUE(BackupOrRestoreConfigFile(link.c_str()));
  SetConfigValue(link.c_str(), "%UPN%", "ann");
  SetConfigValue(link.c_str(), "Username", "ann");
  EXPECT_EQ(folder.Read("real.conf"), "[A]\nUsername=ann\nann\n");
  EXPECT_TRUE(BackupOrRestoreConfigFile(link.c_str()));
  EXPECT_EQ(folder.Read("real.conf"), text);
  EXPECT_TRUE(fs::is_symlink(link));
  for (const std::string& kept : {file, link + ".org"}) {
    EXPECT_EQ(fs::status(kept).permissions(), fs::perms::owner_all) << kept;
  }

  const std::string missing = folder.Path("missing.conf");
  EXPECT_FALSE(BackupOrRestoreConfigFile(missing.c_str()));
  for (const char* name : {"Username", "%UPN%"}) SetConfigValue(missing.c_str(), name, "ann");
  EXPECT_EQ(std::distance(fs::directory_iterator(folder.Path()), fs::directory_iterator()), 3);
}

TEST(ConfigFile, ReplacementAlwaysEnds) {
  const std::tuple<std::string, const char*, std::string_view, const char*> rows[] = {
      {"%%X%X%", "%X%", "", ""},
      {"a%%X%%b%X%", "%X%", "X", "aXbX"},
      {"%X%%-%X%", "%X%", "%X%%X", "%X%%X%-%X%%X"},
      {"aaaabb", "aab", "b", "bb"},
      {"abc", "", "x", "abc"},
  };
  for (auto [text, name, value, result] : rows) {
    ReplaceAll(text, name, value);
    EXPECT_EQ(text, result);
  }
}

TEST(SetCommand, RemovalClearsTheFileAndInsertNeedsACard) {
  const TemporaryFolder folder;
  const std::string text = "[A]\nUsername=ann\nDomain=d\n%SUBJECT%;%SERIALNUMBER%;%UPN%\n";
  const std::string file = folder.Write("my file.conf", text);
  const TraceCapture trace;
  EXPECT_FALSE(RunSetCommand(1, "", "", "", false));
  EXPECT_TRUE(trace.Lines().empty());
  EXPECT_FALSE(RunSetCommand(1, "", "", file, true));
  EXPECT_EQ(folder.Read("my file.conf"), text);
  EXPECT_EQ(trace.Lines().back(), "Watch - Set command ... FAILED");
  EXPECT_TRUE(RunSetCommand(1, "cn=x", "", file, false));
  EXPECT_EQ(folder.Read("my file.conf"), "[A]\nUsername=\nDomain=\n;;%UPN%\n");
  EXPECT_EQ(trace.Lines().back(), "Watch - Set command ... OK");
  EXPECT_FALSE(fs::exists(file + ".org"));
}

}  // namespace
}  // namespace qixx::testing
