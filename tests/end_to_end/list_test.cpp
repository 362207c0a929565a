// --list: the program tells what the service would see, and touches nothing.
#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "der/names.h"
#include "tests/end_to_end/service_test.h"
#include "tests/support/json.h"
#include "tests/support/recipes.h"

namespace qixx::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::MatchesRegex;

class ListWord : public ServiceTest {
 protected:
  int List(Lines words = {}) {
    words.insert(words.begin(), "--list");
    return RunToItsEnd(words);
  }
  JsonValues ListValues(int code = 0) {
    EXPECT_EQ(List({"--json"}), code) << Errors();
    return JsonReader::Read(Read("stdout.txt"));
  }
  void InsertCard(int slot, const std::map<std::string, Recipe>& certificates) {
    Lines files;
    for (const auto& [name, recipe] : certificates) {
      files.push_back(desktop.Home().Write("certificates/" + name + ".der", recipe.Build()));
    }
    desktop.InsertCard(slot, files);
  }
  /// Some values of each element of an array.
  static Lines Rows(const JsonValues& values, const std::string& array, const Lines& names) {
    Lines rows(std::stoul(values.at(array + ".count")));
    for (std::size_t i = 0; i < rows.size(); ++i) {
      const std::string head = array + "." + std::to_string(i) + ".";
      for (const std::string& name : names) {
        const std::string& value = values.at(std::string(head).append(name));
        rows[i].append(rows[i].empty() ? "" : " ").append(value);
      }
    }
    return rows;
  }
};

TEST_F(ListWord, TellsWhatTheServiceSeesAndTakes) {
  const Recipe older{.notAfter = Der(0x17, "210101000000Z")};
  const Recipe expired{.notAfter = Der(0x17, "220101000000Z"), .subject = Part("cn", "Old")};
  const Recipe nameless{.subject = Part("cn", "Bob"), .alternativeNames = ""};
  desktop.AddReader(2);
  desktop.AddReader(4);
  InsertCard(1, {{"a_older", older}, {"b_nameless", nameless}, {"c_good", {}}, {"d_old", expired}});
  InsertCard(4, {{"e_same", {}}, {"f_text", {.subject = ""}}});
  desktop.Home().Write("readers/4/card/g_text.der", "no certificate");
  Configure("-match \"o=example, inc.\" -sync -pin 1234", {});
  const JsonValues values = ListValues();
  EXPECT_EQ(Errors(), "");
  EXPECT_EQ(values.at("watch.command"), "-match \"o=example, inc.\" -sync -pin **** config Watch");
  EXPECT_EQ(values.at("watch.source"), "system-file");
  EXPECT_EQ(values.at("watch.match"), "o=example, inc.");
  EXPECT_EQ(values.at("library.file"), QIXX_SOFTCARD_FOLDER "libqixp11.so");
  EXPECT_EQ(Rows(values, "files", {"role", "reason", "state"}),
            (Lines{"system environment read", "user home missing"}));
  EXPECT_EQ(Rows(values, "readers", {"slot", "card", "removable", "counts", "reason"}),
            (Lines{"1 true true true null", "2 false true false secondary-slot",
                   "4 true true true null"}));
  EXPECT_EQ(Rows(values, "cards", {"slot", "label", "model"}),
            (Lines{"1 Soft card 1 Soft card", "4 Soft card 4 Soft card"}));
  EXPECT_EQ(Rows(values, "certificates", {"slot", "label", "verdict", "expired", "taken"}),
            (Lines{"1 b_nameless without-principal-name false false", "1 c_good taken false true",
                   "4 f_text behind-taken false false", "1 a_older superseded true false",
                   "1 d_old behind-taken true false"}));
  EXPECT_EQ(values.at("certificates.1.principalName"), "ann@example.org");
  EXPECT_EQ(values.at("certificates.1.notAfter"), "2049-12-31T23:59:59Z");
  EXPECT_EQ(Rows(values, "omitted", {"slot", "label", "reason"}),
            (Lines{"4 e_same same-as-another", "4 g_text no-certificate"}));
  EXPECT_EQ(values.at("matchingCard"), "true");
  EXPECT_EQ(Rows(values, "failures", {"call"}), Lines{});
  EXPECT_EQ(List(), 0);
  EXPECT_THAT(Read("stdout.txt"), HasSubstr("TAKEN"));
  EXPECT_THAT(Read("stdout.txt"), HasSubstr("like one is valid longer"));
}

TEST_F(ListWord, MatchInsideASecretIsMasked) {
  Configure("-p /bin/true -c /x -a \"-pin -match geheim\"", {});
  const JsonValues values = ListValues();
  EXPECT_EQ(values.at("watch.match"), "******\"");
  EXPECT_EQ(List(), 0);
  EXPECT_THAT(Read("stdout.txt") + Errors(), ::testing::Not(HasSubstr("geheim")));
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
  const std::string print = desktop.WriteProgram("printf '%s' \"$1\" > " + desktop.Path("got"));
  Watch("-sync", {print + " \"" + names + "\""});
  const JsonValues values = ListValues();  // beside the running service
  std::string listed;
  std::string expected;
  for (const std::string& row : Rows(values, "placeholders", {"name", "filled", "value"})) {
    const std::size_t end = row.find(" true ");
    listed.append(listed.empty() ? "" : ";").append(row.substr(0, end));
    expected.append(expected.empty() ? "" : ";").append(row.substr(end + 6));
  }
  EXPECT_EQ(listed, names);
  EXPECT_TRUE(desktop.Holds("got", expected)) << expected;
}

TEST_F(ListWord, TouchesNothingAndTakesNoEvent) {
  InsertCard(1, {{"good", {}}});
  desktop.SetModuleFaults("log=1\n");
  Configure("-match \"cn=nobody\"", {});
  for (const char* file : {"stdout.txt", "stderr.txt", "readers/calls"}) {
    desktop.Home().Write(file, "");
  }
  const auto filesOfHome = [this] {
    std::set<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(desktop.Path(""))) {
      files.insert(entry.path());
    }
    return files;
  };
  const auto before = filesOfHome();
  EXPECT_EQ(ListValues().at("matchingCard"), "false");
  EXPECT_EQ(filesOfHome(), before) << "no trace, no copy of a certificate, no directory";
  EXPECT_THAT(desktop.Home().Read("readers/calls"),
              MatchesRegex("(C_(GetFunctionList|Initialize|GetInfo|GetSlotList|GetSlotInfo|"
                           "GetTokenInfo|OpenSession|FindObjects(Init|Final)?|GetAttributeValue|"
                           "CloseSession)\n)*C_Finalize\n"));
}

TEST_F(ListWord, SurvivesAndTellsWhateverFails) {
  InsertCard(1, {{"good", {}}});
  Configure("", {});
  for (const std::string call : {"C_GetInfo", "C_GetSlotList", "C_GetSlotInfo", "C_GetTokenInfo",
                                 "C_OpenSession", "C_FindObjects", "C_Finalize"}) {
    desktop.SetModuleFaults("fail=" + call + ":0x30\n");
    EXPECT_EQ(List(), 0) << call;
    EXPECT_THAT(Read("stdout.txt"), HasSubstr("\n  " + call)) << "among those that failed";
  }
  desktop.SetModuleFaults("throw=C_GetInfo\nexit=C_GetTokenInfo\nthrow=C_Finalize\n");
  EXPECT_EQ(Rows(ListValues(), "failures", {"call", "result"}),
            (Lines{"C_GetInfo CKR_GENERAL_ERROR", "C_GetTokenInfo CKR_GENERAL_ERROR",
                   "C_Finalize CKR_GENERAL_ERROR"}));
  desktop.SetModuleFaults("fail=C_GetAttributeValue:0x12\n");
  EXPECT_EQ(ListValues().at("omitted.0.reason"), "unreadable");
  desktop.SetModuleFaults("fail=C_Initialize:0x30\n");
  EXPECT_EQ(ListValues(1).at("library.result"), "CKR_DEVICE_ERROR");
  EXPECT_THAT(Errors(), HasSubstr("C_Initialize gives 0x00000030"));
  desktop.SetModuleFaults("omit=C_GetFunctionList\n");
  EXPECT_EQ(ListValues(1).at("library.file"), "null");
  EXPECT_THAT(Errors(), HasSubstr("gives no PKCS#11 functions"));
}

TEST_F(ListWord, TellsWhatIsBelowTheBridge) {
  desktop.Use(QIXX_BRIDGE_FOLDER);
  // Without the machine's readers.
  desktop.SetVariable("PCSCLITE_CSOCK_NAME", desktop.Path("none"));
  desktop.AddReader(2);
  InsertCard(1, {{"good", {}}});
  const std::string bridgeTrace = "[Trace]\nbridge=" + desktop.Path("bridge.log") + "\n[Pkcs11]\n";
  desktop.Configure(bridgeTrace + "Ignore=*1|*2\nModule=" QIXX_SOFTCARD_PLAIN_FOLDER
                                  "libqixp11.so\n");
  const JsonValues values = ListValues();
  EXPECT_EQ(values.at("library.file"), QIXX_BRIDGE_FOLDER "libqixp11.so");
  EXPECT_EQ(values.at("library.modules.0"), QIXX_SOFTCARD_PLAIN_FOLDER "libqixp11.so");
  EXPECT_EQ(Rows(values, "readers", {"slot", "card", "counts", "reason"}),
            (Lines{"1 true false withheld-by-library", "4 false false withheld-by-library"}));
  EXPECT_EQ(Rows(values, "omitted", {"label", "reason"}), Lines{"good withheld-by-library"});
  desktop.Configure(bridgeTrace + "Module=/nonexistent/module.so\n");
  EXPECT_EQ(ListValues(1).at("library.result"), "CKR_GENERAL_ERROR");
  EXPECT_THAT(Errors(), HasSubstr("Failed to load '/nonexistent/module.so': "));
  EXPECT_FALSE(Exists("bridge.log"));
  EXPECT_FALSE(Exists(".qix"));
}

TEST_F(ListWord, SaysSoOfALibraryThatThrowsWhileItIsOpened) {
  desktop.Home().Write("lib/libqixp11.so", TemporaryFolder::ReadFile(QIXX_THROWING_CONSTRUCTOR));
  desktop.Use(desktop.Path("lib/"));
  Configure("", {});
  EXPECT_EQ(ListValues(1).at("library.file"), "null");
  EXPECT_THAT(Errors(), HasSubstr("lib/libqixp11.so: the library threw while it was opened"));
}

TEST_F(ListWord, WithoutLibraryNamesEachPlace) {
  desktop.Use("/nonexistent/");
  Configure("", {});
  desktop.SetVariable("qixconfiglocal", desktop.Path(""));
  const JsonValues values = ListValues(1);
  EXPECT_EQ(values.at("files.1.state") + ": " + values.at("files.1.fault"),
            "unreadable: no regular file");
  EXPECT_EQ(values.at("library.answers"), "false");
  EXPECT_EQ(values.at("library.tried.1.path"), "/nonexistent/libqixp11.so");
  EXPECT_THAT(Errors(), HasSubstr("/nonexistent/libqixp11.so: cannot open shared object file"));
  desktop.SetVariable("qixconfigglobal", "");
  desktop.SetVariable("HOME", "");
  EXPECT_EQ(List(), 1);
  EXPECT_EQ(List({"--jsno"}), 2);
}

}  // namespace
}  // namespace qixx::testing
