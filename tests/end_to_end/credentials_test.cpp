// The card holder's logon values, from a certificate on the card to the started program and the
// configuration file.
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
  /// Moves the next card in, after the one before it.
  void NextCard(const Lines& certificates) {
    if (cards_++ > 0) RemoveLastCard();
    desktop.InsertCard(1, certificates);
    ASSERT_TRUE(desktop.Traced("Watch - Connected slot 1", cards_));
  }
  void RemoveLastCard() {
    desktop.RemoveCard(1);
    ASSERT_TRUE(desktop.Traced("Watch - Disconnected slot 1", cards_ - 1));
  }
  [[nodiscard]] std::string Logon() const { return desktop.Home().Read("logon.conf"); }
  void WriteLogon(const std::string& text) { desktop.Home().Write("logon.conf", text); }

  const std::string set_ = "set -config " + desktop.Path("logon.conf");

 private:
  std::size_t cards_ = 0;
};

TEST_F(Credentials, PlaceholdersReachTheStartedProgram) {
  Watch("-sync",
        {Echo("\"%UPN%|%username%|%DOMAIN%|%OID.cn%|%OID.O%|%SUBJECT%|%SERIALNUMBER%\"", "said")});
  NextCard({Certificate("ann.der")});
  EXPECT_TRUE(desktop.Holds("said",
                            "ann@tessaly.example|ann|tessaly.example|Ann Lee|Example Org|"
                            "o=Example Org,cn=Ann Lee|0A01\n"));
  NextCard(
      {Certificate("plain.der", {.subject = "/CN=Lee\\, Ann", .upn = "ann", .serial = "0x80"})});
  EXPECT_TRUE(desktop.Holds("said", "ann|ann||Lee, Ann|%OID.O%|cn=Lee\\, Ann|0080\n"));
}

TEST_F(Credentials, SetCommandFillsRestoresAndClearsAFile) {
  const std::string before =
      "[User]\nUsername=\nDomain=none\n[Mail]\nAddress=%USERNAME%@%DOMAIN%\nName=%OID.cn%\n"
      "[Card]\nText=%SUBJECT% %SERIALNUMBER%\n";
  WriteLogon(before);
  Watch("-match \"o=Other; cn=ann lee; cn=bob\" -sync", {set_}, {set_});
  NextCard({Certificate("ann.der")});
  EXPECT_EQ(Logon(),
            "[User]\nUsername=ann\nDomain=tessaly.example\n[Mail]\nAddress=ann@tessaly.example\n"
            "Name=Ann Lee\n[Card]\nText=o=Example Org,cn=Ann Lee 0A01\n");
  EXPECT_EQ(desktop.Home().Read("logon.conf.org"), before);
  NextCard(
      {Certificate("bob.der", {.subject = "/CN=Bob", .upn = "bob@b.example", .serial = "0x0b"})});
  const std::string rest =
      "[Mail]\nAddress=bob@b.example\nName=Bob\n[Card]\n"
      "Text=cn=Bob 0B\n";
  EXPECT_EQ(Logon(), "[User]\nUsername=bob\nDomain=b.example\n" + rest);
  RemoveLastCard();
  EXPECT_TRUE(desktop.Holds("logon.conf", "[User]\nUsername=\nDomain=\n" + rest));
}

TEST_F(Credentials, SetCommandThatCannotWriteEndsTheListAndRestoresWhenAsked) {
  const std::string missing = desktop.Path("none.conf");
  WriteLogon("[User]\nUsername=x\nCard=%SUBJECT%\n");
  Watch("-sync", {set_, "set -config " + missing, Echo("no", "said")},
        {"set -config " + missing, "set -restore -config " + desktop.Path("logon.conf")});
  NextCard({Certificate("ann.der")});
  EXPECT_EQ(desktop.TraceCount("Watch - Set command ... FAILED"), 1U);
  EXPECT_FALSE(Exists("said") || Exists("none.conf") || Exists("none.conf.org"));
  RemoveLastCard();
  EXPECT_TRUE(desktop.Holds("logon.conf", "[User]\nUsername=\nCard=\nDomain=\n"));
  EXPECT_TRUE(desktop.Traced("Watch - Set command ... OK", 2));
}

TEST_F(Credentials, KeywordFormFillsTheFileStartsItsProgramAndClearsTheFile) {
  WriteLogon("[User]\nUsername=x\nCard=%SUBJECT%\n");
  const std::string program = desktop.WriteProgram("echo \"$2\" > " + desktop.Path("ran.txt"));
  desktop.Configure("");
  desktop.Start({"-sync", "-p", program, "-c", desktop.Path("logon.conf"), "-a", "\"one two\""});
  ASSERT_TRUE(desktop.Traced("Watch - Event"));
  NextCard({Certificate("ann.der")});
  EXPECT_TRUE(desktop.Holds("ran.txt", "two\n"));
  EXPECT_EQ(Logon(),
            "[User]\nUsername=ann\nCard=o=Example Org,cn=Ann Lee\nDomain=tessaly.example\n");
  RemoveLastCard();
  EXPECT_TRUE(desktop.Holds("logon.conf", "[User]\nUsername=\nCard=\nDomain=\n"));
}

TEST_F(Credentials, CertificateIsTakenByPassesAndOrder) {
  Watch("-sync", {Echo("\"%UPN%\"", "said")});
  const std::string mail = Certificate(
      "a-mail.der", {.subject = "/CN=M/emailAddress=m@mail.example", .upn = "", .more = ""});
  NextCard({mail, Certificate("b-logon.der")});
  EXPECT_TRUE(desktop.Holds("said", "ann@tessaly.example\n"));
  NextCard({mail});
  EXPECT_TRUE(desktop.Holds("said", "m@mail.example\n"));
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
  std::string owned = desktop.Path("owned.txt");
  const std::string text = "[User]\nText=a_ _ " + owned + " _Path=x\nUsername=x _ y\n";
  // openssl separates components by "/".
  for (std::size_t at = 0; (at = owned.find('/', at)) != std::string::npos; at += 2) {
    owned.insert(at, "\\");
  }
  NextCard(
      {Certificate("evil.der", {.subject = "/CN=a\" > " + owned + " \nPath\\=x", .upn = "x > y"})});
  Stop();
  EXPECT_FALSE(Exists("owned.txt"));
  EXPECT_FALSE(Exists("y"));
  EXPECT_EQ(Logon(), text);
}

}  // namespace
}  // namespace qixx::testing
