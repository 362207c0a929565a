// The card holder's logon values, from a certificate on the card to the configuration file.
#include "der/names.h"
#include "tests/end_to_end/service_test.h"
#include "tests/support/recipes.h"

namespace qixx::testing {
namespace {

using Credentials = ServiceTest;

TEST_F(Credentials, SetCommandFillsRestoresAndClearsAFile) {
  const std::string before =
      "[User]\nUsername=\nDomain=none\n[Mail]\nAddress=%USERNAME%@%DOMAIN%\nName=%OID.cn%\n"
      "[Card]\nText=%SUBJECT% %SERIALNUMBER%\n";
  const Lines set = {"set -config " + Home().Write("logon.conf", before)};
  Watch("-match \"o=Other; cn=ann lee; cn=bob\" -sync", set, set);
  Insert(Home().Write("card.der", Recipe().Build()));
  EXPECT_EQ(Read("logon.conf"),
            "[User]\nUsername=ann\nDomain=example.org\n[Mail]\nAddress=ann@example.org\n"
            "Name=Ann Lee\n[Card]\nText=o=Example\\, Inc.,cn=Ann Lee 2A\n");
  EXPECT_EQ(Read("logon.conf.org"), before);
  Remove();
  const Recipe bob{.serial = "\x0b",
                   .subject = Part("cn", "Bob"),
                   .alternativeNames = OtherName(der::kUserPrincipalName, "bob@b")};
  Insert(Home().Write("card.der", bob.Build()));
  const std::string rest = "[Mail]\nAddress=bob@b\nName=Bob\n[Card]\nText=cn=Bob 0B\n";
  EXPECT_EQ(Read("logon.conf"), "[User]\nUsername=bob\nDomain=b\n" + rest);
  Remove();
  EXPECT_EQ(Read("logon.conf"), "[User]\nUsername=\nDomain=\n" + rest);
}

TEST_F(Credentials, KeywordFormFillsTheFileStartsItsProgramAndClearsTheFile) {
  const std::string file = Home().Write("logon.conf", "[User]\nUsername=x\nCard=%SUBJECT%\n");
  Configure("");
  const std::string program = WriteProgram("echo \"$2\" > " + Path("two"));
  Start({"-sync", "-p", program, "-c", file, "-a", "\"one two\""});
  Insert(Home().Write("card.der", Recipe().Build()));
  EXPECT_TRUE(Ran("two"));
  EXPECT_EQ(Read("logon.conf"),
            "[User]\nUsername=ann\nCard=o=Example\\, Inc.,cn=Ann Lee\nDomain=example.org\n");
  Remove();
  EXPECT_EQ(Read("logon.conf"), "[User]\nUsername=\nCard=\nDomain=\n");
}

}  // namespace
}  // namespace qixx::testing
