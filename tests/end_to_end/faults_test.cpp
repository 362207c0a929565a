// What the service makes of everything that can be wrong around it: it traces and goes on.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <ostream>

#include "tests/end_to_end/desktop.h"
#include "tests/support/eventually.h"

namespace qixx::testing {
namespace {

std::string Watching(const Desktop& desktop) {
  return "[Command]\nWatch=-sync config Watch\n[Watch Insert]\n1=" + desktop.Echo("in", "in.txt") +
         "\n";
}

TEST(Faults, MissingLibraryIsTracedAndTheWatchGoesOn) {
  Desktop desktop(Module::kNone);
  desktop.Configure(Watching(desktop));
  desktop.Start();
  EXPECT_TRUE(desktop.Traced("WrapperPkcs11 - Failed to load library")) << desktop.Report();
  EXPECT_TRUE(desktop.Traced("Watch - Event"));
  EXPECT_EQ(desktop.Stop(), 0);
}

TEST(Faults, LibraryThatComesUpLateIsInitialisedLater) {
  Desktop desktop;
  desktop.Configure(Watching(desktop));
  desktop.SetModuleFaults("fail=C_Initialize:0x30\n");
  desktop.Start();
  ASSERT_TRUE(desktop.Traced("WrapperPkcs11 - Initialize count 0 at initialize"))
      << desktop.Report();
  desktop.SetModuleFaults("");
  ASSERT_TRUE(desktop.Traced("WrapperPkcs11 - Initialize count 1 at initialize"))
      << desktop.Report();
  desktop.InsertCard(1);
  EXPECT_TRUE(desktop.Holds("in.txt", "in\n")) << desktop.Report();
  EXPECT_EQ(desktop.Stop(), 0);
}

class FailingFunction : public ::testing::TestWithParam<const char*> {};

TEST_P(FailingFunction, IsSurvived) {
  Desktop desktop;
  desktop.Configure(
      "[Command]\nWatch=-match \"cn=x\" -recognized config Watch\n"
      "[Watch Insert]\n1=kill %UPN%\n[Watch Remove]\n1=kill x\n");
  desktop.SetModuleFaults("fail=" + std::string(GetParam()) + ":0x5\n");
  desktop.InsertCard(1);
  desktop.Start();
  ASSERT_TRUE(desktop.Traced("Watch - Event")) << desktop.Report();
  desktop.RemoveCard(1);
  desktop.SetModuleFaults("");
  ASSERT_TRUE(desktop.Traced("Watch - Remove event ...")) << desktop.Report();
  desktop.InsertCard(1);
  EXPECT_TRUE(desktop.Traced("Watch - Inserted event ...")) << desktop.Report();
  EXPECT_EQ(desktop.Stop(), 0) << desktop.Report();
}

INSTANTIATE_TEST_SUITE_P(Faults, FailingFunction,
                         ::testing::Values("C_GetSlotList", "C_GetSlotInfo", "C_GetTokenInfo",
                                           "C_WaitForSlotEvent", "C_OpenSession",
                                           "C_FindObjectsInit", "C_FindObjects",
                                           "C_FindObjectsFinal", "C_GetAttributeValue",
                                           "C_CloseSession", "C_Finalize"),
                         [](const auto& function) { return std::string(function.param); });

TEST(Faults, PlainStandardModuleServes) {
  Desktop desktop(Module::kPlain);
  desktop.Configure(Watching(desktop));
  desktop.InsertCard(1);
  desktop.Start();
  EXPECT_TRUE(desktop.Holds("in.txt", "in\n")) << desktop.Report();
  EXPECT_EQ(desktop.Stop(), 0);
  EXPECT_EQ(desktop.TraceCount("WrapperPkcs11 - Function C_GetVariable missing"), 1U);
  EXPECT_EQ(desktop.TraceCount("WrapperPkcs11 - Loaded extended '" +
                               std::string(QIXX_SOFTCARD_PLAIN_FOLDER) + "libqixp11.so'"),
            1U)
      << desktop.Report();
}

struct BrokenText {
  const char* name;
  std::string watch;
  std::string entry = "kill x";

  friend void PrintTo(const BrokenText& text, std::ostream* out) { *out << text.name; }
};

const std::string kMuch(5000, 'm');
const BrokenText kBrokenTexts[] = {
    {"SectionOf5000", "-sync config " + kMuch},
    {"SectionOf51", "-sync config " + std::string(51, 's')},
    {"MatchWithoutClosingQuote", "-match \"cn=x"},
    {"MatchAtTheVeryEnd", "-match \""},
    {"LongQuotedValues", "-match \"" + std::string(300, 'a') + "\" -wait \"" +
                             std::string(200, ' ') + "\" -message \"" + std::string(300, 'b') +
                             "|" + std::string(100, 'c') + "\" -sync config Watch"},
    {"EndlessWait", "-wait \"99999999999999999999999|1\" -sync config Watch"},
    {"EntryOf5000", "-sync config Watch", kMuch},
    {"PercentSigns", "-sync config Watch", "%s%n%UPN%%OID.%%OID.cn%%%d"},
    {"QuotesOnly", "-sync config Watch", "application \"\"\"\" \" \""},
    {"ApplicationWithoutProgram", "-sync config Watch", "application "},
    {"EmptyLoad", "-sync config Watch", "load , "},
    {"EmptyExtern", "-sync config Watch", "extern ,"},
    {"EmptySet", "-sync config Watch", "set -config "},
    {"NoProgram", "-sync config Watch", "/nonexistent/program"},
    {"ControlBytes", "-sync config Watch", "/bin/echo \x01\x7f\xff\xfe"},
    {"ExtraWatchersOfNothing", "-sync config Watch|||" + kMuch},
};

class BrokenTexts : public ::testing::TestWithParam<BrokenText> {};

TEST_P(BrokenTexts, AreTracedAndLeaveTheServiceInOrder) {
  Desktop desktop;
  desktop.Configure("[Command]\nWatch=" + GetParam().watch +
                    "\n[Watch Insert]\n1=" + GetParam().entry + "\n");
  desktop.InsertCard(1);
  desktop.Start();
  EXPECT_TRUE(Eventually([&] {
    return desktop.TraceCount("Watch - Stopped") != 0 ||
           desktop.TraceCount("Watch - Inserted event ...") != 0;
  })) << desktop.Report();
  EXPECT_EQ(desktop.Stop(), 0) << desktop.Report();
}

INSTANTIATE_TEST_SUITE_P(Faults, BrokenTexts, ::testing::ValuesIn(kBrokenTexts),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(Faults, UnusableFilesAreNoHindrance) {
  Desktop desktop;
  const std::string fifo = desktop.Path("fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  std::filesystem::create_directories(desktop.Path("folder"));
  const std::string removed = desktop.Home().Write("removed.conf", "x=%SUBJECT%\n");
  desktop.Configure(
      "[Command]\nWatch=-sync config Watch\n[Watch Insert]\n1=kill x\n[Watch Remove]\n"
      "1=set -config " +
      fifo + "\n2=set -config " + desktop.Path("folder") + "\n3=set -config " +
      desktop.Path("gone/gone.conf") + "\n4=set -config " + removed + "\n5=/bin/echo x > " +
      desktop.Path("folder") + "\n6=" + desktop.Echo("end", "end.txt") + "\n");
  desktop.InsertCard(1);
  desktop.Start();
  ASSERT_TRUE(desktop.Traced("Watch - Connected slot 1")) << desktop.Report();
  std::filesystem::remove(removed);
  // The system's file vanishes too: the remove section then holds nothing.
  desktop.RemoveCard(1);
  EXPECT_TRUE(desktop.Holds("end.txt", "end\n")) << desktop.Report();
  std::filesystem::remove(desktop.Path("system.conf"));
  desktop.InsertCard(1);
  EXPECT_TRUE(desktop.Traced("Watch - Inserted event ... FAILED")) << desktop.Report();
  EXPECT_EQ(desktop.Stop(), 0);
}

TEST(Faults, ClosedStandardDescriptorsHarmNoFile) {
  Desktop desktop;
  desktop.Configure(Watching(desktop));
  desktop.InsertCard(1);
  desktop.Start({"-c", "exec " QIXX_PROGRAM " <&- >&- 2>&-"}, "/bin/sh");
  EXPECT_TRUE(desktop.Holds("in.txt", "in\n")) << desktop.Report();
  EXPECT_EQ(desktop.Stop(), 0) << desktop.Report();
}

}  // namespace
}  // namespace qixx::testing
