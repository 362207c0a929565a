// --list: the program tells what the service would see, and touches nothing.
#include "der/names.h"
#include "tests/end_to_end/service_test.h"
#include "tests/support/openssl.h"
#include "tests/support/recipes.h"

namespace qixx::testing {
namespace {

class ListWord : public ServiceTest {
 protected:
  /// The path of a file for a card, with a blank behind it.
  [[nodiscard]] std::string File(const std::string& name, const std::string& content) const {
    return Home().Write("files/" + name, content) + " ";
  }
  /// What Python makes of the JSON: an expression with `v` for its value.
  std::string Listed(const std::string& expression, int code = 0) {
    EXPECT_EQ(RunToItsEnd({"--list", "--json"}), code) << Errors();
    return OutputOf("python3 -X utf8 -c \"import json; v = json.load(open('" + Path("stdout.txt") +
                    "')); print(" + expression + ", end='')\"");
  }
  /// Some values of each element of an array, a line for each.
  std::string Rows(const std::string& array, const std::string& names) {
    return Listed("*[' '.join(str(row[name]) for name in '" + names + "'.split()) for row in v['" +
                  array + "']], sep='\\n'");
  }
};

TEST_F(ListWord, TellsWhatTheServiceSeesAndTakes) {
  const Recipe older{.notAfter = Der(0x17, "210101000000Z")};
  const Recipe nameless{.subject = Part("cn", "Bob"), .alternativeNames = ""};
  AddReader(2);
  InsertCard(1, File("older", older.Build()) + File("nameless", nameless.Build()) +
                    File("z", Recipe().Build()));
  InsertCard(4, File("same", Recipe().Build()) + File("text", "none") +
                    File("b", Recipe{.subject = ""}.Build()));
  ConfigureWatch("-match \"o=example, inc.\" -sync -pin 1234", {});
  EXPECT_EQ(Listed("v['watch']['command'], v['library']['file'], v['matchingCard']"),
            "-match \"o=example, inc.\" -sync -pin **** config Watch " QIXX_SOFTCARD_FOLDER
            "libqixp11.so True");
  EXPECT_EQ(Rows("readers", "slot card removable counts reason"),
            "1 True True True None\n2 False True False secondary-slot\n4 True True True None");
  EXPECT_EQ(
      Rows("certificates", "slot label principalName notAfter keyUsage verdict expired"),
      "1 nameless None 2049-12-31T23:59:59Z ['digitalSignature'] without-principal-name False\n"
      "1 z ann@example.org 2049-12-31T23:59:59Z ['digitalSignature'] taken False\n"
      "4 b ann@example.org 2049-12-31T23:59:59Z ['digitalSignature'] behind-taken False\n"
      "1 older ann@example.org 2021-01-01T00:00:00Z ['digitalSignature'] superseded True");
  EXPECT_EQ(Rows("omitted", "slot label reason"), "4 same same-as-another\n4 text no-certificate");
  EXPECT_EQ(RunToItsEnd({"--list"}), 0);
  EXPECT_THAT(Read("stdout.txt"), ::testing::ContainsRegex("TAKEN(.|\n)*like one is valid longer"));
}

TEST_F(ListWord, GivesPlaceholdersAsACommandGetsThem) {
  const Recipe hostile{.serial = "\xff\x01",
                       .subject = Part("cn", "Ann \" > /x\n\x1b \xff %UPN%") + Part("ou", "../x") +
                                  Part(der::kEmailAttribute, "ann@mail|c"),
                       .alternativeNames = OtherName(der::kUserPrincipalName, "a\"nn@ex ample")};
  InsertCard(1, File("hostile", hostile.Build()));
  const std::string names =
      "%UPN%;%USERNAME%;%DOMAIN%;%SUBJECT%;%SERIALNUMBER%;%OID.cn%;%OID.ou%;"
      "%OID.1.2.840.113549.1.9.1%";
  const std::string print = WriteProgram("printf '%s' \"$1\" > " + Path("got"));
  ConfigureWatch("-sync", {print + " \"" + names + "\""});
  EXPECT_EQ(Listed("*[row['name'] for row in v['placeholders'] if row['filled']], sep=';'"), names);
  const std::string values = Listed("*[row['value'] for row in v['placeholders']], sep=';'");
  Start();
  EXPECT_TRUE(Holds("got", values)) << values;
}

TEST_F(ListWord, TouchesNothingAndTakesNoEvent) {
  InsertCard(1, File("good", Recipe().Build()));
  SetModuleFaults("log=1\n");
  ConfigureWatch("-match \"cn=nobody\"", {});
  for (const char* file : {"stdout.txt", "stderr.txt", "readers/calls"}) Home().Write(file, "");
  const std::string files = "find " + Path("") + " | sort";
  const std::string before = OutputOf(files);
  EXPECT_EQ(Listed("v['matchingCard']"), "False");
  EXPECT_EQ(OutputOf(files), before) << "no trace, no copy of a certificate, no directory";
  EXPECT_THAT(Read("readers/calls"),
              ::testing::MatchesRegex(
                  "(C_(GetFunctionList|Initialize|GetInfo|GetSlotList|GetSlotInfo|GetTokenInfo|"
                  "OpenSession|FindObjects(Init|Final)?|GetAttributeValue|CloseSession)\n)*"
                  "C_Finalize\n"));
}

TEST_F(ListWord, SurvivesAndTellsWhateverFails) {
  InsertCard(1, File("good", Recipe().Build()));
  ConfigureWatch("", {});
  SetModuleFaults("throw=C_GetInfo\nexit=C_GetTokenInfo\nthrow=C_Finalize\n");
  EXPECT_EQ(Rows("failures", "call result"),
            "C_GetInfo CKR_GENERAL_ERROR\nC_GetTokenInfo CKR_GENERAL_ERROR\n"
            "C_Finalize CKR_GENERAL_ERROR");
  SetModuleFaults("fail=C_Initialize:0x30");
  EXPECT_EQ(Listed("v['library']['result']", 1), "CKR_DEVICE_ERROR");
  EXPECT_THAT(Errors(), ::testing::HasSubstr("C_Initialize gives 0x00000030"));
}

}  // namespace
}  // namespace qixx::testing
