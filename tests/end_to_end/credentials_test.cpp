// The card holder's logon values, from a certificate on the card to the configuration file.
#include "der/names.h"
#include "tests/end_to_end/service_test.h"
#include "tests/support/recipes.h"

namespace qixx::testing {
namespace {

class Credentials : public ServiceTest {
 protected:
  void InsertHolder(const Recipe& certificate = {}) const {
    Insert(Home().Write("card.der", certificate.Build()));
  }

  const std::string file_ = Path("logon.conf");
};

TEST_F(Credentials, SetCommandFillsRestoresAndClearsAFile) {
  const std::string before =
      "[User]\nUsername=\nDomain=none\n[Mail]\nAddress=%USERNAME%@%DOMAIN%\nName=%OID.cn%\n"
      "[Card]\nText=%SUBJECT% %SERIALNUMBER%\n";
  Home().Write("logon.conf", before);
  const Lines set = {"set -config " + file_};
  Watch("-match \"o=Other; cn=ann lee; cn=bob\" -sync", set, set);
  InsertHolder();
  EXPECT_EQ(Read("logon.conf"),
            "[User]\nUsername=ann\nDomain=example.org\n[Mail]\nAddress=ann@example.org\n"
            "Name=Ann Lee\n[Card]\nText=o=Example\\, Inc.,cn=Ann Lee 2A\n");
  EXPECT_EQ(Read("logon.conf.org"), before);
  Remove();
  InsertHolder({.serial = "\x0b",
                .subject = Part("cn", "Bob"),
                .alternativeNames = OtherName(der::kUserPrincipalName, "bob@b")});
  const std::string rest = "[Mail]\nAddress=bob@b\nName=Bob\n[Card]\nText=cn=Bob 0B\n";
  EXPECT_EQ(Read("logon.conf"), "[User]\nUsername=bob\nDomain=b\n" + rest);
  Remove();
  EXPECT_EQ(Read("logon.conf"), "[User]\nUsername=\nDomain=\n" + rest);
}

TEST_F(Credentials, KeywordFormFillsTheFileStartsItsProgramAndClearsTheFile) {
  Home().Write("logon.conf", "[User]\nUsername=x\nCard=%SUBJECT%\n");
  Configure("");
  const std::string program = WriteProgram("echo \"$2\" > " + Path("two"));
  Start({"-sync", "-p", program, "-c", file_, "-a", "\"one two\""});
  InsertHolder();
  EXPECT_TRUE(Ran("two"));
  EXPECT_EQ(Read("logon.conf"),
            "[User]\nUsername=ann\nCard=o=Example\\, Inc.,cn=Ann Lee\nDomain=example.org\n");
  Remove();
  EXPECT_EQ(Read("logon.conf"), "[User]\nUsername=\nCard=\nDomain=\n");
}

}  // namespace
}  // namespace qixx::testing
