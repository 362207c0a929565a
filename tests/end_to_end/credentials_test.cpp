// The card holder's logon values, from a certificate on the card to the started program and the
// configuration file.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/end_to_end/desktop.h"
#include "tests/support/eventually.h"
#include "tests/support/openssl.h"

namespace qixx::testing {
namespace {

class Credentials : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(OutputOf("openssl version").empty()) << "the program openssl is needed";
  }
  std::string Certificate(const std::string& name, const CertificateText& text = {}) {
    EXPECT_TRUE(MakeCertificate(desktop.Path(name), text)) << name;
    return desktop.Path(name);
  }
  void Watch(const std::string& options, const std::string& insert,
             const std::string& remove = "") {
    desktop.Configure("[Command]\nWatch=" + options + "-sync config Watch\n[Watch Insert]\n" +
                      insert + "\n[Watch Remove]\n" + remove + "\n");
    desktop.Start();
    ASSERT_TRUE(desktop.Traced("Watch - Event")) << desktop.Report();
  }
  /// Moves the next card in, after the one before it.
  void NextCard(const std::string& certificate, std::size_t count) {
    if (count > 1) {
      desktop.RemoveCard(1);
      ASSERT_TRUE(desktop.Traced("Watch - Disconnected slot 1", count - 1)) << desktop.Report();
    }
    desktop.InsertCard(1, {certificate});
    ASSERT_TRUE(desktop.Traced("Watch - Connected slot 1", count)) << desktop.Report();
  }

  Desktop desktop;
};

TEST_F(Credentials, PlaceholdersReachTheStartedProgram) {
  Watch("",
        "1=/bin/echo \"%UPN%|%username%|%DOMAIN%|%OID.cn%|%OID.O%|%SUBJECT%|%SERIALNUMBER%\" > " +
            desktop.Path("said.txt"));
  NextCard(Certificate("ann.der"), 1);
  EXPECT_TRUE(desktop.Holds("said.txt",
                            "ann@tessaly.example|ann|tessaly.example|Ann Lee|Example Org|"
                            "o=Example Org,cn=Ann Lee|0A01\n"))
      << desktop.Report();
  NextCard(Certificate("plain.der", {.subject = "/CN=Lee\\, Ann", .upn = "ann", .serial = "0x80"}),
           2);
  EXPECT_TRUE(desktop.Holds("said.txt", "ann|ann||Lee, Ann|%OID.O%|cn=Lee\\, Ann|0080\n"))
      << desktop.Report();
  EXPECT_EQ(desktop.Stop(), 0);
}

TEST_F(Credentials, SetCommandFillsRestoresAndClearsAFile) {
  const std::string before =
      "[User]\nUsername=\nDomain=none\n[Mail]\nAddress=%USERNAME%@%DOMAIN%\nName=%OID.cn%\n"
      "[Card]\nText=%SUBJECT% %SERIALNUMBER%\n";
  desktop.Home().Write("logon.conf", before);
  const std::string set = "1=set -config " + desktop.Path("logon.conf");
  Watch("", set, set);
  NextCard(Certificate("ann.der"), 1);
  const std::string first =
      "[User]\nUsername=ann\nDomain=tessaly.example\n[Mail]\nAddress=ann@tessaly.example\n"
      "Name=Ann Lee\n[Card]\nText=o=Example Org,cn=Ann Lee 0A01\n";
  EXPECT_TRUE(desktop.Holds("logon.conf", first)) << desktop.Report();
  EXPECT_EQ(desktop.Home().Read("logon.conf.org"), before);

  NextCard(Certificate("bob.der", {.subject = "/CN=Bob", .upn = "bob@b.example", .serial = "0x0b"}),
           2);
  EXPECT_TRUE(
      desktop.Holds("logon.conf",
                    "[User]\nUsername=bob\nDomain=b.example\n[Mail]\nAddress=bob@b.example\n"
                    "Name=Bob\n[Card]\nText=cn=Bob 0B\n"))
      << desktop.Report();
  desktop.RemoveCard(1);
  EXPECT_TRUE(desktop.Traced("Watch - Disconnected slot 1", 2));
  EXPECT_EQ(desktop.Home().Read("logon.conf"),
            "[User]\nUsername=\nDomain=\n[Mail]\nAddress=bob@b.example\nName=Bob\n[Card]\n"
            "Text=cn=Bob 0B\n");
  EXPECT_EQ(desktop.Stop(), 0);
}

TEST_F(Credentials, KeywordFormFillsTheFileAndRestoresItOnRemoval) {
  desktop.Home().Write("logon.conf", "[User]\nUsername=x\nCard=%SUBJECT%\n");
  desktop.Configure("");
  desktop.Start({"-sync", "-p", "/bin/true", "-c", desktop.Path("logon.conf")});
  ASSERT_TRUE(desktop.Traced("Watch - Event")) << desktop.Report();
  NextCard(Certificate("ann.der"), 1);
  EXPECT_EQ(desktop.Home().Read("logon.conf"),
            "[User]\nUsername=ann\nCard=o=Example Org,cn=Ann Lee\nDomain=tessaly.example\n")
      << desktop.Report();
  desktop.RemoveCard(1);
  EXPECT_TRUE(desktop.Traced("Watch - Disconnected slot 1")) << desktop.Report();
  EXPECT_EQ(desktop.Home().Read("logon.conf"), "[User]\nUsername=\nCard=\nDomain=\n");
  EXPECT_EQ(desktop.Stop(), 0);
}

TEST_F(Credentials, MatchDecidesWhichCardCounts) {
  Watch("-match \"o=Other; cn=ann lee\" ", "1=/bin/echo %USERNAME% > " + desktop.Path("said.txt"));
  NextCard(Certificate("bob.der", {.subject = "/O=Org/CN=Bob", .upn = "bob@b"}), 1);
  EXPECT_TRUE(desktop.Traced("Watch - Inserted event ... FAILED")) << desktop.Report();
  NextCard(Certificate("ann.der"), 2);
  EXPECT_TRUE(desktop.Holds("said.txt", "ann\n")) << desktop.Report();
  EXPECT_EQ(desktop.Stop(), 0);
}

TEST_F(Credentials, CertificateIsTakenByPassesAndOrder) {
  Watch("", "1=/bin/echo \"%UPN%\" > " + desktop.Path("said.txt"));
  const std::string mail = Certificate(
      "a-mail.der", {.subject = "/CN=M/emailAddress=m@mail.example", .upn = "", .more = ""});
  const std::string logon = Certificate("b-logon.der");
  desktop.InsertCard(1, {mail, logon});
  EXPECT_TRUE(desktop.Holds("said.txt", "ann@tessaly.example\n")) << desktop.Report();
  desktop.RemoveCard(1);
  ASSERT_TRUE(desktop.Traced("Watch - Disconnected slot 1"));
  desktop.InsertCard(1, {mail});
  EXPECT_TRUE(desktop.Holds("said.txt", "m@mail.example\n")) << desktop.Report();
  EXPECT_EQ(desktop.Stop(), 0);
}

TEST_F(Credentials, TokenVariableNamesTheLogonUserInFastMatch) {
  desktop.Home().Write("logon.conf", "[User]\nUsername=\n");
  Watch("", "1=set -match fast -config " + desktop.Path("logon.conf"));
  desktop.AddReader(1);
  desktop.Home().Write("readers/1/card.new/variables", "ActiveLogonUPN=eve@fast.example\n");
  std::filesystem::rename(desktop.Path("readers/1/card.new"), desktop.Path("readers/1/card"));
  EXPECT_TRUE(desktop.Traced("Watch - Found active logon UPN eve@fast.example"))
      << desktop.Report();
  EXPECT_TRUE(desktop.Holds("logon.conf", "[User]\nUsername=eve\nDomain=fast.example\n"))
      << desktop.Report();
  EXPECT_EQ(desktop.Stop(), 0);
}

TEST_F(Credentials, ValuesOfACardAddNoArgumentRedirectionOrLine) {
  desktop.Home().Write("logon.conf", "[User]\nText=%OID.cn%\n");
  Watch("", "1=set -config " + desktop.Path("logon.conf") + "\n2=/bin/echo \"%OID.cn%\" %UPN%");
  const std::string evil = "/CN=a\" > " + desktop.Path("owned.txt") + " \nPath\\=x";
  std::string subject = evil;
  for (std::size_t at = subject.find('/', 1); at != std::string::npos;
       at = subject.find('/', at + 2)) {
    subject.insert(at, "\\");
  }
  NextCard(Certificate("evil.der", {.subject = subject, .upn = "x > y"}), 1);
  EXPECT_EQ(desktop.Stop(), 0);
  EXPECT_FALSE(std::filesystem::exists(desktop.Path("owned.txt"))) << desktop.Report();
  EXPECT_FALSE(std::filesystem::exists(desktop.Path("y")));
  EXPECT_EQ(desktop.Home().Read("logon.conf"),
            "[User]\nText=a_ _ " + desktop.Path("owned.txt") + " _Path=x\nUsername=x _ y\n")
      << desktop.Report();
}

}  // namespace
}  // namespace qixx::testing
