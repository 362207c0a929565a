// Other people's programs and the script for the cards, run as a user would run them.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <string>

#include "tests/softcard/certificate_data.h"
#include "tests/support/environment.h"
#include "tests/support/temporary_folder.h"

namespace qixx::testing {
namespace {

struct Outcome {
  int status;
  std::string output;
};

class ForeignTools : public ::testing::Test {
 protected:
  Outcome Run(const std::string& command) {
    const std::string file = folder_.Path("output");
    const int status = std::system((command + " >" + file + " 2>&1").c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, TemporaryFolder::ReadFile(file)};
  }
  Outcome Card(const std::string& arguments) { return Run(CARD_SCRIPT " " + arguments); }

  const TemporaryFolder folder_;
  const ScopedVariable readers_{"QIXX_SOFTCARD", folder_.Path("readers").c_str()};
};

TEST_F(ForeignTools, Pkcs11ToolListsSlotsAndObjects) {
  if (*SOFTCARD_SANITIZER != '\0') {
    GTEST_SKIP() << "a program without the sanitizer cannot load a module with it";
  }
  if (Run("command -v pkcs11-tool").status != 0) {
    GTEST_SKIP() << "NOT TESTED: pkcs11-tool is not installed (package opensc)";
  }
  folder_.Write("readers/1/card/holder.pem", kHolderPem);
  folder_.Write("readers/1/card/variables", "name=value\n");
  folder_.Write("readers/4/slot", "description=Empty reader\n");
  for (const char* const module : {SOFTCARD_SUITE, SOFTCARD_PLAIN}) {
    const Outcome tool = Run("pkcs11-tool --module " + std::string(module) + " -L -O");
    EXPECT_EQ(tool.status, 0) << tool.output;
    for (const char* const text :
         {"(0x1): Soft reader 1", "Soft card 1", "(0x4): Empty reader", "label:      holder",
          "CN=Soft Card Holder", "serial:     1234", "application:    'Tessaly'"}) {
      EXPECT_NE(tool.output.find(text), std::string::npos) << text << " in\n" << tool.output;
    }
  }
}

TEST_F(ForeignTools, ScriptInsertsAndRemoves) {
  const std::string pem = folder_.Write("files/holder.pem", kHolderPem);
  const std::string crt = folder_.Write("files/a b.crt", kHolderPem);
  const std::string cer = folder_.Write("files/x.cer", "\x30\x01x");
  const std::string variables = folder_.Write("files/variables", "name=value\n");

  EXPECT_EQ(Card("insert 1 " + pem + " '" + crt + "' " + cer + " " + variables).output, "");
  EXPECT_EQ(folder_.Read("readers/1/card/holder.pem"), kHolderPem);
  EXPECT_EQ(folder_.Read("readers/1/card/a b.pem"), kHolderPem);
  EXPECT_EQ(folder_.Read("readers/1/card/x.der"), "\x30\x01x");
  EXPECT_EQ(folder_.Read("readers/1/card/variables"), "name=value\n");
  EXPECT_EQ(Card("insert 1").output, "") << "a card changed for another one";
  EXPECT_EQ(Run("ls -A " + folder_.Path("readers/1/card")).output, "");
  EXPECT_EQ(Card("remove 1").output, "");
  EXPECT_EQ(Run("ls -A " + folder_.Path("readers/1")).output, "") << "nothing is left behind";
}

TEST_F(ForeignTools, ScriptRefusesWithASentence) {
  const std::string pem = folder_.Write("files/holder.pem", kHolderPem);
  const std::string crt = folder_.Write("files/holder.crt", kHolderPem);
  const struct {
    std::string arguments;
    int status;
    std::string text;
  } rows[] = {{"insert", 2, "usage: "},
              {"eject 1", 2, "usage: "},
              {"insert ../x", 2, "usage: "},
              {"insert 4294967295", 2, "usage: "},
              {"remove 1", 1, "there is no card in slot 1"},
              {"insert 1 " + folder_.Path("none.pem"), 1, "cannot read the file "},
              {"insert 1 " + pem + " " + crt, 1, "two files would have the name "}};
  for (const auto& row : rows) {
    const Outcome card = Card(row.arguments);
    EXPECT_EQ(card.status, row.status) << row.arguments;
    EXPECT_EQ(card.output.find("card: " + row.text), 0U) << row.arguments << ": " << card.output;
  }
  EXPECT_EQ(Run("find " + folder_.Path("readers") + " -name '*card*'").output, "");
}

}  // namespace
}  // namespace qixx::testing
