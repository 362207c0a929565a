// --list: the program tells what the service would see, and touches nothing.
#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <sstream>

#include "der/names.h"
#include "tests/end_to_end/service_test.h"
#include "tests/support/json.h"
#include "tests/support/recipes.h"

namespace qixx::testing {
namespace {

using ::testing::HasSubstr;

class ListWord : public ServiceTest {
 protected:
  /// Runs to the end; what it printed is in `output_` and `errors_`.
  int List(std::vector<std::string> words) {
    std::filesystem::remove(desktop.Path("stdout.txt"));
    std::filesystem::remove(desktop.Path("stderr.txt"));
    words.insert(words.begin(), "--list");
    desktop.Start(words);
    const int code = desktop.Stop(0);
    output_ = desktop.Home().Read("stdout.txt");
    errors_ = desktop.Home().Read("stderr.txt");
    return code;
  }
  JsonValues ListValues(int code = 0) {
    EXPECT_EQ(List({"--json"}), code) << errors_;
    return JsonReader::Read(output_);
  }
  void InsertCard(int slot, const std::map<std::string, Recipe>& certificates) {
    std::vector<std::string> files;
    std::ranges::transform(certificates, std::back_inserter(files), [this](const auto& named) {
      const auto& [name, recipe] = named;
      return desktop.Home().Write("certificates/" + name + ".der", recipe.Build());
    });
    desktop.InsertCard(slot, files);
  }
  /// Some values of each element of an array.
  static std::vector<std::string> Rows(const JsonValues& values, const std::string& array,
                                       const std::vector<std::string>& names) {
    std::vector<std::string> rows;
    for (std::size_t i = 0; i < std::stoul(values.at(array + ".count")); ++i) {
      std::string& row = rows.emplace_back();
      const std::string head = array + "." + std::to_string(i) + ".";
      for (const std::string& name : names) {
        row.append(row.empty() ? "" : " ").append(values.at(std::string(head).append(name)));
      }
    }
    return rows;
  }
  [[nodiscard]] std::set<std::string> FilesOfHome() const {
    std::set<std::string> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(desktop.Path(""))) {
      files.insert(entry.path().string());
    }
    return files;
  }

  std::string output_;
  std::string errors_;
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
  EXPECT_EQ(errors_, "");
  EXPECT_EQ(values.at("watch.command"), "-match \"o=example, inc.\" -sync -pin **** config Watch");
  EXPECT_EQ(values.at("watch.source"), "system-file");
  EXPECT_EQ(values.at("watch.match"), "o=example, inc.");
  EXPECT_EQ(values.at("library.file"), QIXX_SOFTCARD_FOLDER "libqixp11.so");
  using Expected = std::vector<std::string>;
  EXPECT_EQ(Rows(values, "files", {"role", "reason", "state"}),
            (Expected{"system environment read", "user home missing"}));
  EXPECT_EQ(Rows(values, "readers", {"slot", "card", "removable", "counts", "reason"}),
            (Expected{"1 true true true null", "2 false true false secondary-slot",
                      "4 true true true null"}));
  EXPECT_EQ(Rows(values, "cards", {"slot", "label", "model"}),
            (Expected{"1 Soft card 1 Soft card", "4 Soft card 4 Soft card"}));
  EXPECT_EQ(Rows(values, "certificates", {"slot", "label", "verdict", "expired", "taken"}),
            (Expected{"1 b_nameless without-principal-name false false",
                      "1 c_good taken false true", "4 f_text behind-taken false false",
                      "1 a_older superseded true false", "1 d_old behind-taken true false"}));
  EXPECT_EQ(values.at("certificates.1.principalName"), "ann@example.org");
  EXPECT_EQ(values.at("certificates.1.notAfter"), "2049-12-31T23:59:59Z");
  EXPECT_EQ(Rows(values, "omitted", {"slot", "label", "reason"}),
            (Expected{"4 e_same same-as-another", "4 g_text no-certificate"}));
  EXPECT_EQ(values.at("matchingCard"), "true");
  EXPECT_EQ(Rows(values, "failures", {"call"}), Expected{});
  EXPECT_EQ(List({}), 0);
  EXPECT_THAT(output_, HasSubstr("TAKEN"));
  EXPECT_THAT(output_, HasSubstr("like one is valid longer"));
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
  std::string expected;
  const JsonValues values = ListValues();  // beside the running service
  std::istringstream each(names);
  std::size_t index = 0;
  for (std::string name; std::getline(each, name, ';'); ++index) {
    const std::string path = "placeholders." + std::to_string(index);
    EXPECT_EQ(values.at(path + ".name"), name);
    EXPECT_EQ(values.at(path + ".filled"), "true");
    expected.append(expected.empty() ? "" : ";").append(values.at(path + ".value"));
  }
  EXPECT_EQ(values.at("placeholders.count"), std::to_string(index));
  EXPECT_TRUE(desktop.Holds("got", expected)) << expected;
}

TEST_F(ListWord, TouchesNothingAndTakesNoEvent) {
  InsertCard(1, {{"good", {}}});
  desktop.SetModuleFaults("log=1\n");
  Configure("-match \"cn=nobody\"", {});
  ListValues();
  const std::set<std::string> before = FilesOfHome();
  std::filesystem::remove(desktop.Path("readers/calls"));
  const JsonValues values = ListValues();
  EXPECT_EQ(FilesOfHome(), before) << "no trace, no copy of a certificate, no directory";
  EXPECT_EQ(values.at("matchingCard"), "false");
  std::istringstream calls(desktop.Home().Read("readers/calls"));
  std::string last;
  for (std::string call; std::getline(calls, call); last = call) {
    EXPECT_THAT(
        (std::set<std::string>{"C_GetFunctionList", "C_Initialize", "C_GetInfo", "C_GetSlotList",
                               "C_GetSlotInfo", "C_GetTokenInfo", "C_OpenSession",
                               "C_FindObjectsInit", "C_FindObjects", "C_FindObjectsFinal",
                               "C_GetAttributeValue", "C_CloseSession", "C_Finalize"}),
        ::testing::Contains(call));
  }
  EXPECT_EQ(last, "C_Finalize");
}

TEST_F(ListWord, SurvivesAndTellsWhateverFails) {
  InsertCard(1, {{"good", {}}});
  Configure("", {});
  for (const std::string call : {"C_GetInfo", "C_GetSlotList", "C_GetSlotInfo", "C_GetTokenInfo",
                                 "C_OpenSession", "C_FindObjects", "C_Finalize"}) {
    desktop.SetModuleFaults("fail=" + call + ":0x30\n");
    EXPECT_EQ(List({}), 0) << call;
    EXPECT_THAT(output_, HasSubstr("\n  " + call)) << "among those that failed";
  }
  desktop.SetModuleFaults("throw=C_GetInfo\nexit=C_GetTokenInfo\nthrow=C_Finalize\n");
  EXPECT_EQ(
      Rows(ListValues(), "failures", {"call", "result"}),
      (std::vector<std::string>{"C_GetInfo CKR_GENERAL_ERROR", "C_GetTokenInfo CKR_GENERAL_ERROR",
                                "C_Finalize CKR_GENERAL_ERROR"}));
  desktop.SetModuleFaults("fail=C_GetAttributeValue:0x12\n");
  EXPECT_EQ(ListValues().at("omitted.0.reason"), "unreadable");
  desktop.SetModuleFaults("fail=C_Initialize:0x30\n");
  EXPECT_EQ(ListValues(1).at("library.result"), "CKR_DEVICE_ERROR");
  EXPECT_THAT(errors_, HasSubstr("C_Initialize gives 0x00000030"));
  desktop.SetModuleFaults("omit=C_GetFunctionList\n");
  EXPECT_EQ(ListValues(1).at("library.file"), "null");
  EXPECT_THAT(errors_, HasSubstr("gives no PKCS#11 functions"));
}

TEST_F(ListWord, TellsWhatIsBelowTheBridge) {
  desktop.Use(QIXX_BRIDGE_FOLDER);
  desktop.SetVariable("PCSCLITE_CSOCK_NAME",
                      desktop.Path("none"));  // without the machine's readers
  desktop.AddReader(2);
  InsertCard(1, {{"good", {}}});
  const std::string bridgeTrace = "[Trace]\nbridge=" + desktop.Path("bridge.log") + "\n[Pkcs11]\n";
  desktop.Configure(bridgeTrace + "Ignore=*1|*2\nModule=" QIXX_SOFTCARD_PLAIN_FOLDER
                                  "libqixp11.so\n");
  const JsonValues values = ListValues();
  EXPECT_EQ(values.at("library.file"), QIXX_BRIDGE_FOLDER "libqixp11.so");
  EXPECT_EQ(values.at("library.modules.0"), QIXX_SOFTCARD_PLAIN_FOLDER "libqixp11.so");
  EXPECT_EQ(Rows(values, "readers", {"slot", "card", "counts", "reason"}),
            (std::vector<std::string>{"1 true false withheld-by-library",
                                      "4 false false withheld-by-library"}));
  EXPECT_EQ(Rows(values, "omitted", {"label", "reason"}),
            std::vector<std::string>{"good withheld-by-library"});
  desktop.Configure(bridgeTrace + "Module=/nonexistent/module.so\n");
  EXPECT_EQ(ListValues(1).at("library.result"), "CKR_GENERAL_ERROR");
  EXPECT_THAT(errors_, HasSubstr("Failed to load '/nonexistent/module.so': "));
  EXPECT_FALSE(Exists("bridge.log"));
  EXPECT_FALSE(Exists(".qix"));
}

TEST_F(ListWord, SaysSoOfALibraryThatThrowsWhileItIsOpened) {
  desktop.Home().Write("lib/libqixp11.so", TemporaryFolder::ReadFile(QIXX_THROWING_CONSTRUCTOR));
  desktop.Use(desktop.Path("lib/"));
  Configure("", {});
  EXPECT_EQ(ListValues(1).at("library.file"), "null");
  EXPECT_THAT(errors_, HasSubstr("lib/libqixp11.so: the library threw while it was opened"));
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
  EXPECT_THAT(errors_, HasSubstr("/nonexistent/libqixp11.so: cannot open shared object file"));
  desktop.SetVariable("qixconfigglobal", "");
  desktop.SetVariable("HOME", "");
  EXPECT_EQ(List({}), 1);
  EXPECT_EQ(List({"--jsno"}), 2);
}

}  // namespace
}  // namespace qixx::testing
