// The card holder's logon values, from a certificate on the card to the configuration file.
#include "der/names.h"
#include "tests/end_to_end/service_test.h"
#include "tests/support/recipes.h"

namespace qixx::testing {
namespace {

class Credentials : public ServiceTest {
 protected:
  void InsertHolder(const Recipe& certificate = {}) const {
    Insert({Home().Write("card.der", certificate.Build())});
  }
  [[nodiscard]] std::string Logon() const { return Read("logon.conf"); }
  void WriteLogon(const std::string& text) const { Home().Write("logon.conf", text); }

  const std::string set_ = "set -config " + Path("logon.conf");
};

TEST_F(Credentials, SetCommandFillsRestoresAndClearsAFile) {
  const std::string before =
      "[User]\nUsername=\nDomain=none\n[Mail]\nAddress=%USERNAME%@%DOMAIN%\nName=%OID.cn%\n"
      "[Card]\nText=%SUBJECT% %SERIALNUMBER%\n";
  WriteLogon(before);
  Watch("-match \"o=Other; cn=ann lee; cn=bob\" -sync", {set_}, {set_});
  InsertHolder();
  EXPECT_EQ(Logon(),
            "[User]\nUsername=ann\nDomain=example.org\n[Mail]\nAddress=ann@example.org\n"
            "Name=Ann Lee\n[Card]\nText=o=Example\\, Inc.,cn=Ann Lee 2A\n");
  EXPECT_EQ(Read("logon.conf.org"), before);
  Remove();
  InsertHolder({.serial = "\x0b",
                .subject = Part("cn", "Bob"),
                .alternativeNames = OtherName(der::kUserPrincipalName, "bob@b")});
  const std::string rest = "[Mail]\nAddress=bob@b\nName=Bob\n[Card]\nText=cn=Bob 0B\n";
  EXPECT_EQ(Logon(), "[User]\nUsername=bob\nDomain=b\n" + rest);
  Remove();
  EXPECT_EQ(Logon(), "[User]\nUsername=\nDomain=\n" + rest);
}

TEST_F(Credentials, SetCommandThatCannotWriteEndsTheListOfAnInsertionOnly) {
  const std::string missing = "set -config " + Path("none.conf");
  WriteLogon("[User]\nUsername=x\nCard=%SUBJECT%\n");
  Watch("-sync", {set_, missing, Echo("never")}, {missing, "set -restore" + set_.substr(3)});
  InsertHolder();
  EXPECT_FALSE(Exists("never") || Exists("none.conf") || Exists("none.conf.org"));
  Remove();
  EXPECT_EQ(Logon(), "[User]\nUsername=\nCard=\nDomain=\n");
  EXPECT_EQ(TraceCount("Watch - Set command ... FAILED"), 2U);
  EXPECT_EQ(TraceCount("Watch - Set command ... OK"), 2U);
}

TEST_F(Credentials, KeywordFormFillsTheFileStartsItsProgramAndClearsTheFile) {
  WriteLogon("[User]\nUsername=x\nCard=%SUBJECT%\n");
  Configure("");
  Start({"-sync", "-p", WriteProgram("echo \"$2\" > " + Path("two")), "-c", Path("logon.conf"),
         "-a", "\"one two\""});
  InsertHolder();
  EXPECT_TRUE(Ran("two"));
  EXPECT_EQ(Logon(),
            "[User]\nUsername=ann\nCard=o=Example\\, Inc.,cn=Ann Lee\nDomain=example.org\n");
  Remove();
  EXPECT_EQ(Logon(), "[User]\nUsername=\nCard=\nDomain=\n");
}

TEST_F(Credentials, TokenVariableNamesTheLogonUserInFastMatch) {
  WriteLogon("[User]\nUsername=\n");
  Watch("-sync", {"set -match fast" + set_.substr(3)});
  Home().Write("readers/1/card.new/variables", "ActiveLogonUPN=eve@fast.example\n");
  InsertCard(1);
  Await("Watch - Found active logon UPN eve@fast.example");
  EXPECT_TRUE(Holds("logon.conf", "[User]\nUsername=eve\nDomain=fast.example\n"));
}

TEST_F(Credentials, ValuesOfACardAddNoArgumentRedirectionOrLine) {
  WriteLogon("[User]\nText=%OID.cn%\n");
  Watch("-sync", {set_, "/bin/echo \"%OID.cn%\" %UPN%"});
  InsertHolder({.subject = Part("cn", "a\" > " + Path("owned") + " \nPath=x"),
                .alternativeNames = OtherName(der::kUserPrincipalName, "x > y")});
  Stop();
  EXPECT_FALSE(Exists("owned") || Exists("y"));
  EXPECT_EQ(Logon(), "[User]\nText=a_ _ " + Path("owned") + " _Path=x\nUsername=x _ y\n");
}

}  // namespace
}  // namespace qixx::testing
