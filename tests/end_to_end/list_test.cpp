// --list: the program tells what the service would see, and touches nothing.
#include <sys/stat.h>

#include <set>

#include "der/names.h"
#include "tests/end_to_end/service_test.h"
#include "tests/support/json.h"
#include "tests/support/recipes.h"

namespace qixx::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsSupersetOf;

class ListWord : public ServiceTest {
 protected:
  /// The exit code, and what was printed.
  std::pair<int, std::string> List(const std::string& form = {}) {
    const int code = RunToItsEnd(form.empty() ? Lines{"--list"} : Lines{"--list", form});
    return {code, Read("stdout.txt")};
  }
  JsonValues ListValues(int expected = 0) {
    const auto [code, json] = List("--json");
    EXPECT_EQ(code, expected) << Errors();
    return ReadJson(json);
  }
  void InsertCard(int slot, const std::map<std::string, Recipe>& certificates) const {
    Lines files;
    for (const auto& [name, recipe] : certificates) {
      files.push_back(Home().Write("certificates/" + name + ".der", recipe.Build()));
    }
    Desktop::InsertCard(slot, files);
  }
  /// Some values of each element of an array.
  static Lines Rows(const JsonValues& values, const std::string& array, const Lines& names) {
    Lines rows(std::stoul(values.at(array + ".count")));
    for (std::size_t i = 0; i < rows.size(); ++i) {
      for (const std::string& name : names) {
        const std::string path = array + "." + std::to_string(i) + "." + name;
        rows[i].append(rows[i].empty() ? "" : " ").append(values.at(path));
      }
    }
    return rows;
  }
};

TEST_F(ListWord, TellsWhatTheServiceSeesAndTakes) {
  const Recipe older{.notAfter = Der(0x17, "210101000000Z")};
  const Recipe nameless{.subject = Part("cn", "Bob"), .alternativeNames = ""};
  for (const int slot : {2, 4}) AddReader(slot);
  InsertCard(1, {{"a_older", older}, {"b_nameless", nameless}, {"c_good", {}}});
  InsertCard(4, {{"e_same", {}}, {"f_text", {.subject = ""}}});
  Home().Write("readers/4/card/g_text.der", "no certificate");
  Home().Write("readers/4/card/large.der", std::string(65537, '\x30'));
  ASSERT_EQ(::mkfifo(Path("readers/4/card/pipe.der").c_str(), 0600), 0);
  ConfigureWatch("-match \"o=example, inc.\" -sync -pin 1234", {});
  const JsonValues values = ListValues();
  EXPECT_THAT(values,
              IsSupersetOf(JsonValues{
                  {"watch.command", "-match \"o=example, inc.\" -sync -pin **** config Watch"},
                  {"watch.match", "o=example, inc."},
                  {"library.file", QIXX_SOFTCARD_FOLDER "libqixp11.so"},
                  {"certificates.1.principalName", "ann@example.org"},
                  {"certificates.1.notAfter", "2049-12-31T23:59:59Z"},
                  {"certificates.1.keyUsage.0", "digitalSignature"},
                  {"matchingCard", "true"}}));
  EXPECT_THAT(Rows(values, "readers", {"slot", "card", "removable", "counts", "reason"}),
              ElementsAre("1 true true true null", "2 false true false secondary-slot",
                          "4 true true true null"));
  EXPECT_THAT(
      Rows(values, "certificates", {"slot", "label", "verdict", "expired", "taken"}),
      ElementsAre("1 b_nameless without-principal-name false false", "1 c_good taken false true",
                  "4 f_text behind-taken false false", "1 a_older superseded true false"));
  EXPECT_THAT(Rows(values, "omitted", {"slot", "label", "reason"}),
              ElementsAre("4 e_same same-as-another", "4 g_text no-certificate"));
  EXPECT_THAT(List(),
              ::testing::Pair(0, AllOf(HasSubstr("TAKEN"), HasSubstr("like one is valid longer"))));
}

TEST_F(ListWord, GivesPlaceholdersAsACommandGetsThem) {
  const Recipe hostile{.serial = "\xff\x01",
                       .subject = Part("cn", "Ann \" > /x\n\x1b \xff %UPN%") + Part("ou", "../x") +
                                  Part(der::kEmailAttribute, "ann@mail|c"),
                       .alternativeNames = OtherName(der::kUserPrincipalName, "a\"nn@ex ample")};
  InsertCard(1, {{"hostile", hostile}});
  const std::string names =
      "%UPN%;%USERNAME%;%DOMAIN%;%SUBJECT%;%SERIALNUMBER%;%OID.cn%;%OID.ou%;"
      "%OID.1.2.840.113549.1.9.1%";
  const std::string print = WriteProgram("printf '%s' \"$1\" > " + Path("got"));
  Watch("-sync", {print + " \"" + names + "\""});
  std::string listed, expected;
  // Beside the running service.
  for (const std::string& row : Rows(ListValues(), "placeholders", {"name", "filled", "value"})) {
    const std::size_t end = row.find(" true ");
    listed.append(listed.empty() ? "" : ";").append(row.substr(0, end));
    expected.append(expected.empty() ? "" : ";").append(row.substr(end + 6));
  }
  EXPECT_EQ(listed, names);
  EXPECT_TRUE(Holds("got", expected)) << expected;
}

TEST_F(ListWord, TouchesNothingAndTakesNoEvent) {
  InsertCard(1, {{"good", {}}});
  SetModuleFaults("log=1\n");
  ConfigureWatch("-match \"cn=nobody\"", {});
  for (const char* file : {"stdout.txt", "stderr.txt", "readers/calls"}) Home().Write(file, "");
  const auto filesOfHome = [this] {
    const fs::recursive_directory_iterator files(Path(""));
    return std::multiset<fs::path>(begin(files), end(files));
  };
  const auto before = filesOfHome();
  EXPECT_EQ(ListValues().at("matchingCard"), "false");
  EXPECT_EQ(filesOfHome(), before) << "no trace, no copy of a certificate, no directory";
  EXPECT_THAT(Read("readers/calls"),
              ::testing::MatchesRegex(
                  "(C_(GetFunctionList|Initialize|GetInfo|GetSlotList|GetSlotInfo|GetTokenInfo|"
                  "OpenSession|FindObjects(Init|Final)?|GetAttributeValue|CloseSession)\n)*"
                  "C_Finalize\n"));
}

TEST_F(ListWord, SurvivesAndTellsWhateverFails) {
  InsertCard(1, {{"good", {}}});
  ConfigureWatch("", {});
  for (const std::string call : {"C_GetSlotList", "C_OpenSession", "C_FindObjects"}) {
    SetModuleFaults("fail=" + call + ":0x30\n");
    EXPECT_THAT(List(), ::testing::Pair(0, HasSubstr("\n  " + call))) << "among those that failed";
  }
  SetModuleFaults("throw=C_GetInfo\nexit=C_GetTokenInfo\nthrow=C_Finalize\n");
  EXPECT_THAT(Rows(ListValues(), "failures", {"call", "result"}),
              ElementsAre("C_GetInfo CKR_GENERAL_ERROR", "C_GetTokenInfo CKR_GENERAL_ERROR",
                          "C_Finalize CKR_GENERAL_ERROR"));
  SetModuleFaults("fail=C_Initialize:0x30");
  EXPECT_EQ(ListValues(1).at("library.result"), "CKR_DEVICE_ERROR");
  EXPECT_THAT(Errors(), HasSubstr("C_Initialize gives 0x00000030"));
}

}  // namespace
}  // namespace qixx::testing
