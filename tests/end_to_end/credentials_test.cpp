// The card holder's logon values, from a certificate on the card to the started program and the
// configuration file.
#include <regex>

#include "tests/end_to_end/service_test.h"
#include "tests/support/openssl.h"

namespace qixx::testing {
namespace {

class Credentials : public ServiceTest {
 protected:
  void SetUp() override {
    ASSERT_FALSE(OutputOf("openssl version").empty()) << "the program openssl is needed";
  }
  std::string Certificate(const std::string& name, const CertificateText& text = {}) {
    EXPECT_TRUE(MakeCertificate(desktop.Path(name), text)) << name;
    return desktop.Path(name);
  }
  [[nodiscard]] std::string Logon() const { return Read("logon.conf"); }
  void WriteLogon(const std::string& text) { desktop.Home().Write("logon.conf", text); }

  const std::string set_ = "set -config " + desktop.Path("logon.conf");
};

TEST_F(Credentials, PlaceholdersReachTheStartedProgram) {
  Watch("-sync",
        {Echo("\"%UPN%|%username%|%DOMAIN%|%OID.cn%|%OID.O%|%SUBJECT%|%SERIALNUMBER%\"", "said")});
  InsertCard({Certificate("ann.der")});
  EXPECT_TRUE(desktop.Holds("said",
                            "ann@tessaly.example|ann|tessaly.example|Ann Lee|Example Org|"
                            "o=Example Org,cn=Ann Lee|0A01\n"));
}

TEST_F(Credentials, SetCommandFillsRestoresAndClearsAFile) {
  const std::string before =
      "[User]\nUsername=\nDomain=none\n[Mail]\nAddress=%USERNAME%@%DOMAIN%\nName=%OID.cn%\n"
      "[Card]\nText=%SUBJECT% %SERIALNUMBER%\n";
  WriteLogon(before);
  Watch("-match \"o=Other; cn=ann lee; cn=bob\" -sync", {set_}, {set_});
  InsertCard({Certificate("ann.der")});
  EXPECT_EQ(Logon(),
            "[User]\nUsername=ann\nDomain=tessaly.example\n[Mail]\nAddress=ann@tessaly.example\n"
            "Name=Ann Lee\n[Card]\nText=o=Example Org,cn=Ann Lee 0A01\n");
  EXPECT_EQ(Read("logon.conf.org"), before);
  RemoveCard();
  InsertCard(
      {Certificate("bob.der", {.subject = "/CN=Bob", .upn = "bob@b.example", .serial = "0x0b"})});
  const std::string rest =
      "[Mail]\nAddress=bob@b.example\nName=Bob\n[Card]\n"
      "Text=cn=Bob 0B\n";
  EXPECT_EQ(Logon(), "[User]\nUsername=bob\nDomain=b.example\n" + rest);
  RemoveCard();
  EXPECT_TRUE(desktop.Holds("logon.conf", "[User]\nUsername=\nDomain=\n" + rest));
}

TEST_F(Credentials, SetCommandThatCannotWriteEndsTheListAndRestoresWhenAsked) {
  const std::string missing = desktop.Path("none.conf");
  WriteLogon("[User]\nUsername=x\nCard=%SUBJECT%\n");
  Watch("-sync", {set_, "set -config " + missing, Echo("no", "said")},
        {"set -config " + missing, "set -restore -config " + desktop.Path("logon.conf")});
  InsertCard({Certificate("ann.der")});
  EXPECT_EQ(desktop.TraceCount("Watch - Set command ... FAILED"), 1U);
  EXPECT_FALSE(Exists("said") || Exists("none.conf") || Exists("none.conf.org"));
  RemoveCard();
  EXPECT_TRUE(desktop.Holds("logon.conf", "[User]\nUsername=\nCard=\nDomain=\n"));
  EXPECT_TRUE(desktop.Traced("Watch - Set command ... OK", 2));
}

TEST_F(Credentials, KeywordFormFillsTheFileStartsItsProgramAndClearsTheFile) {
  WriteLogon("[User]\nUsername=x\nCard=%SUBJECT%\n");
  const std::string program = desktop.WriteProgram("echo \"$2\" > " + desktop.Path("ran.txt"));
  desktop.Configure("");
  desktop.Start({"-sync", "-p", program, "-c", desktop.Path("logon.conf"), "-a", "\"one two\""});
  InsertCard({Certificate("ann.der")});
  EXPECT_TRUE(desktop.Holds("ran.txt", "two\n"));
  EXPECT_EQ(Logon(),
            "[User]\nUsername=ann\nCard=o=Example Org,cn=Ann Lee\nDomain=tessaly.example\n");
  RemoveCard();
  EXPECT_TRUE(desktop.Holds("logon.conf", "[User]\nUsername=\nCard=\nDomain=\n"));
}

TEST_F(Credentials, TokenVariableNamesTheLogonUserInFastMatch) {
  WriteLogon("[User]\nUsername=\n");
  Watch("-sync", {"set -match fast -config " + desktop.Path("logon.conf")});
  desktop.Home().Write("readers/1/card.new/variables", "ActiveLogonUPN=eve@fast.example\n");
  std::filesystem::rename(desktop.Path("readers/1/card.new"), desktop.Path("readers/1/card"));
  EXPECT_TRUE(desktop.Traced("Watch - Found active logon UPN eve@fast.example"));
  EXPECT_TRUE(desktop.Holds("logon.conf", "[User]\nUsername=eve\nDomain=fast.example\n"));
}

TEST_F(Credentials, ValuesOfACardAddNoArgumentRedirectionOrLine) {
  WriteLogon("[User]\nText=%OID.cn%\n");
  Watch("-sync", {set_, "/bin/echo \"%OID.cn%\" %UPN%"});
  const std::string file = desktop.Path("owned.txt");
  // openssl separates components by "/".
  const std::string owned = std::regex_replace(file, std::regex("/"), "\\/");
  InsertCard(
      {Certificate("evil.der", {.subject = "/CN=a\" > " + owned + " \nPath\\=x", .upn = "x > y"})});
  Stop();
  EXPECT_FALSE(Exists("owned.txt"));
  EXPECT_FALSE(Exists("y"));
  EXPECT_EQ(Logon(), "[User]\nText=a_ _ " + file + " _Path=x\nUsername=x _ y\n");
}

}  // namespace
}  // namespace qixx::testing
