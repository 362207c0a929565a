// The card holder's values: found on the cards, cleaned, replaced in commands, written into files.
#include "watch/credentials.h"

#include <gtest/gtest.h>

#include "tests/support/fake_card.h"
#include "tests/support/recipes.h"
#include "tests/support/temporary_folder.h"
#include "tests/watch/scripted.h"
#include "watch/card_text.h"
#include "watch/command.h"
#include "watch/placeholders.h"
#include "watch/set_command.h"

namespace qixx::testing {
namespace {

TEST(CardText, IsOnlyEverText) {
  const std::pair<std::string, std::string> rows[] = {
      // no line, argument or redirection
      {std::string("a\nb\0\tc\x7f", 7), "a_b__c_"},
      {"\" > /etc/x", "_ _ /etc/x"},
      {"> a >b b> >", "_ a >b b> _"},
      {"a >%x% /etc/x", "a _%x% /etc/x"},
      // nothing that a reader of the trace sees otherwise than it stands
      {"\xc2\x9b\xc2\xa0\u061c\u200d\u200e\u200f\u202a\u202e\u2028\u2029\u202f\u2066\u2069\u206a",
       "_\xc2\xa0_\u200d______\u202f__\u206a"},
      // é, a bare tail, an overlong form, a surrogate, beyond the last character, cut short
      {">>\xc3\xa9\xff \x80 \xc0\xaf \xed\xa0\x80 \xf4\x90\x80\x80 \xf0\x9f\x98\x80 \xe2\x82",
       ">>\xc3\xa9_ _ __ ___ ____ \xf0\x9f\x98\x80 __"},
      // no condition, placeholder or option
      {"x|none||/usr/bin/touch F ", "x_none__/usr/bin/touch F "},
      {"%upn% %OID.x 50% %%Domain% %OI", "_upn% _OID.x 50% %_Domain% _OI"},
      {"Ann-config F -MATCH -registryx (-config", "Ann-config F _MATCH -registryx (_config"},
      // no way up
      {"../../..", ".._.._.."},
      {"./a/.b/c..", "_/a/.b/c.."},
      {".. x . y/.. .", "_ x . y/_ ."},
      // no mark of an old file, whose sections would be renamed
      {"Soft Tokens, soft tokens", "Soft_Tokens, soft tokens"},
  };
  for (const auto& [text, cleaned] : rows) {
    EXPECT_EQ(watch::CleanCardText(text), cleaned);
    EXPECT_EQ(watch::CleanCardText(cleaned), cleaned) << "settled";
  }
  // The reader of a configuration drops what is not ASCII in front of its first line.
  EXPECT_EQ(watch::CleanLineStart(" \xc3\xa9[Evil] x"), " \xc3\xa9_Evil] x");
  using watch::Blocks;
  EXPECT_EQ(watch::BlocksOf("<a>%UPN%</a>\n <b> <c\n"), Blocks::kInLines);
  EXPECT_EQ(watch::BlocksOf("<a>\n <off\n>"), Blocks::kAcrossLines);
  EXPECT_EQ(watch::BlocksOf(std::string("<a>\0", 4)), Blocks::kAcrossLines);
  const std::string value = " <x/>y <z@o>/";
  EXPECT_EQ(watch::CleanBlockMarks(value, Blocks::kInLines), " _x/_y <z@o>_");
  EXPECT_EQ(watch::CleanBlockMarks(value, Blocks::kAcrossLines), " _x/_y <z@o__");
  EXPECT_EQ(watch::SplitPrincipalName(">@b@c").user, "_");
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
  watch::CardReader& reader = watch::SystemCardReader();
  const std::tuple<const char*, bool, bool> rows[] = {
      {"cn=nobody", true, false},    {"cn=ann lee|ff", true, true},
      {"cn=ann lee|06", true, true}, {"cn=ann lee|01", false, false},
      {"cn=bob|05", false, true},    {"cn=ann lee|0500", true, false},
  };
  for (const auto& [match, found, present] : rows) {
    SCOPED_TRACE(match);
    const auto values = watch::FindLogonCredential(reader, match, 1);
    EXPECT_EQ(values ? values->upn : "", found ? "ann@example.org" : "");
    EXPECT_EQ(watch::IsCredentialStillPresent(reader, match), found);
    EXPECT_EQ(watch::IsMatchingCardPresent(reader, match), present);
  }
  pkcs11::Pkcs11().Release();
}

TEST(Match, FastTakesTheNameThatTheTokenNotes) {
  Scripted machine(AnnsCard());
  ScriptedReader& reader = machine.reader;
  reader.activeLogon = "bob\n@x";
  EXPECT_EQ(watch::FindLogonCredential(reader, "FAST", 1)->upn, "bob_@x");
  EXPECT_FALSE(watch::FindLogonCredential(reader, "fast", watch::kNoSlot))
      << "a command keeps its placeholders";
  reader.activeLogon = "";
  EXPECT_EQ(watch::FindLogonCredential(reader, "fast", 1)->upn, "ann@example.org");
  const Recipe longer{
      .subject = Part("cn", std::string(300, 's')),
      .alternativeNames = OtherName(der::kUserPrincipalName, std::string(256, 'u'))};
  reader.tokens = {{1, "Reader", longer.Build()}};
  const auto values = watch::FindLogonCredential(reader, "", 1);
  ASSERT_TRUE(values);
  EXPECT_EQ(values->upn, "") << "left out";
  EXPECT_EQ(values->subject, "cn=" + std::string(252, 's')) << "cut";
}

TEST(Placeholders, AreReplacedInCommandsWithinTheirLimit) {
  const watch::LogonValues values = {
      .upn = "ann@example.org", .subject = "o=Example\\, Inc.,cn=Ann %UPN%,o=x", .serial = "2A"};
  const std::tuple<const char*, std::size_t, const char*> rows[] = {
      {"\"%oid.O%\" %OID.cn% %OID.ou%", 511, "\"Example, Inc.\" Ann _UPN_ %OID.ou%"},
      {"%SERIALNUMBER%SUBJECT%", 511, "%SERIALNUMBERo=Example\\, Inc.,cn=Ann %UPN%,o=x"},
      {"%SERIALNUMBER%%UPN%", 20, "2A%UPN%"},
      {"%UPN% %UPN% %UPN%", 27, "ann@example.org %UPN% %UPN%"},
      {"%UPN% %UPN% %UPN%", 26, "%UPN% %UPN% %UPN%"},
  };
  for (const auto& [text, limit, expected] : rows) {
    EXPECT_EQ(watch::ReplaceLogonPlaceholders(values, text, limit), expected) << text;
  }
}

TEST(Placeholders, NoValueMakesAnotherCommand) {
  const std::tuple<const char*, const char*, const char*, const char*> rows[] = {
      // A bare value may be many arguments.
      {"echo %UPN% %OID.cn%", " a  b", "c >d", "echo  a  b c >d"},
      // no redirection that the line does not have
      {"echo Card of <%UPN%> %OID.cn%", "owns this line ", "/victim",
       "echo Card of <%UPN%> /victim"},
      {"echo %USERNAME%>%DOMAIN%", "evil @ /victim", "", "echo evil >%DOMAIN%"},
      {"echo %OID.%UPN%%> /f", "cn", "x ", "echo %OID.cn%> /f"},
      // A bare value may end one, being a word more.
      {"echo \"%UPN%\" > /f-%OID.cn%", "a b", "c d", "echo \"a b\" > /f-c d"},
      // no quotes that hold something else together
      {"say --text=\"%OID.cn%\" -t \"%UPN%\"", "a b c", "x ",
       "say --text=\"%OID.cn%\" -t \"a b c\""},
      // no option that comes about at the edge of a value, also where another one goes
      {"%USERNAME%-%OID.cn% -config /own", "Ex.", "config /other", "Ex.-%OID.cn% -config /own"},
      {"set %OID.cn%-config /own -%OID.cn% /other", "", "config",
       "set config-config /own -%OID.cn% /other"},
      // no way out of a folder, also by values that come to nothing
      {"echo > \"/d/%OID.cn%.%USERNAME%.%DOMAIN%\"", "@/victim", "",
       "echo > \"/d/%OID.cn%../victim\""},
      {"extern /l,.%USERNAME%.%DOMAIN%", "@/y", "", "extern /l,..%DOMAIN%"},
      // no other library or function that is called
      {"load /d/%DOMAIN%.so,Lock \"%UPN%\"", "a@b.so,Wipe all", "",
       "load /d/%DOMAIN%.so,Lock \"a@b.so,Wipe all\""},
  };
  for (const auto& [text, upn, name, expected] : rows) {
    const watch::LogonValues values = {.upn = upn, .subject = std::string("cn=") + name};
    EXPECT_EQ(watch::ReplaceLogonPlaceholders(values, text, 511), expected) << text;
  }
}

TEST(Placeholders, EachAloneHasTheCardRead) {
  ScriptedReader reader(AnnsCard());
  const std::tuple<const char*, const char*> rows[] = {
      {"%upn%", "ann@example.org"},
      {"%UserName%", "ann"},
      {"%DOMAIN%", "example.org"},
      {"%SUBJECT%", "o=Example\\, Inc.,cn=Ann Lee"},
      {"%SerialNumber%", "2A"},
      {"%oid.CN%", "Ann Lee"},
      {"%CN%", "%CN%"},
  };
  EXPECT_EQ(std::size(rows), watch::kNamedPlaceholders.size() + 2) << "a row for each";
  for (const auto& [text, expected] : rows) {
    EXPECT_EQ(watch::ExpandLogonPlaceholders(reader, "", text, 511), expected);
  }
}

TEST(SetOptions, AreNotLookedForInQuotes) {
  const watch::SetOptions options = watch::ParseSetOptions(
      "-match \"a -config F -registry G\" -registry-config H -config \"/x -match y\" -match z");
  EXPECT_EQ(options.match, "a -config F -registry G");
  EXPECT_EQ(options.registry, "");
  EXPECT_EQ(options.config, "/x -match y");
}

TEST(SetCommand, RefusesANameThatIsTooLongForAFile) {
  const TemporaryFolder folder;
  folder.Write("abc", "[A]\nUsername=kept\n");
  ScriptedReader card;
  // Cut to its place, the longer one would be the name of the file.
  const std::string fits = folder.Path(std::string(251 - folder.Path().size(), '/') + "abc");
  const watch::WatchEvent removal = {watch::EventKind::kRemove, 1};
  EXPECT_FALSE(watch::ExecuteCommand(card, removal, "set -config " + fits + "d"));
  EXPECT_EQ(folder.Read("abc"), "[A]\nUsername=kept\n");
  EXPECT_TRUE(watch::ExecuteCommand(card, removal, "set -config " + fits));
}

}  // namespace
}  // namespace qixx::testing
