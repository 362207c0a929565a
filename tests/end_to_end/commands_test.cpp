// Every command keyword, lists with gaps and failures, and what happens to a list after them.
#include "tests/end_to_end/service_test.h"
#include "tests/support/eventually.h"

namespace qixx::testing {
namespace {

namespace fs = std::filesystem;

class Commands : public ServiceTest {
 protected:
  /// Lets the service meet a card that is in already, and waits until its insert list has ended.
  void Run(const Lines& insert, const Lines& remove = {}) {
    Configure("-sync", insert, remove);
    RunConfigured();
  }
  void RunConfigured() {
    desktop.InsertCard(1);
    desktop.Start();
    ASSERT_TRUE(desktop.Traced("Watch - Connected slot 1"));
  }
  const std::string never_ = Echo("never", "never.txt");
};

TEST_F(Commands, ListEndsAtAGapAndAnEmptyEntryIsSkipped) {
  desktop.Configure("[Command]\nWatch=-sync config Watch\n[Watch Insert]\n1=\n2=" +
                    Echo("two", "two.txt") + "\n4=" + never_ + "\n[Watch Remove]\n1=kill x\n");
  RunConfigured();
  EXPECT_TRUE(desktop.Holds("two.txt", "two\n"));
  Stop();
  EXPECT_FALSE(Exists("never.txt"));
}

TEST_F(Commands, InsertStopsAtAFailureAndRemoveDoesNotAndClearsAFileInPlace) {
  const std::string file =
      desktop.Home().Write("logon.conf", "[User]\nUsername=ann\nCard=%SUBJECT%\n");
  const fs::perms mode = fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read;
  fs::permissions(file, mode);
  Run({"kill x", "-r HKLM", "close x", never_},
      {"kill x", "-r HKLM", "close x", "set -config " + file, Echo("out", "out.txt")});
  RemoveCard();
  EXPECT_TRUE(desktop.Holds("out.txt", "out\n"));
  EXPECT_FALSE(Exists("never.txt"));
  EXPECT_EQ(desktop.TraceCount("Watch - Execute insert command: close x"), 1U);
  EXPECT_EQ(desktop.TraceCount("Watch - Inserted event ... OK"), 1U);
  EXPECT_EQ(Read("logon.conf"), "[User]\nUsername=\nCard=\nDomain=\n");
  EXPECT_EQ(fs::status(file).permissions(), mode);
}

TEST_F(Commands, ApplicationTakesAQuotedProgramAndArguments) {
  const std::string program =
      desktop.WriteProgram("printf '%s|' \"$@\" > " + desktop.Path("seen.txt"), "my programs/tool");
  Run({"application \"" + program + "\"   one \"two words\" \"-o ption\" \"\" \"x\""});
  EXPECT_TRUE(desktop.Holds("seen.txt", "one|two words|\"-o ption\"|\"\"|\"x\"|"));
}

TEST_F(Commands, ParallelCommandsRunBesideTheListAndEndBeforeTheService) {
  Lines insert;
  for (int n = 1; n <= 20; ++n) insert.push_back("parallel " + Echo("p", std::to_string(n)));
  insert.insert(insert.end(), {"parallel kill x", "parallel " + std::string(256, 'x'), never_});
  Run(insert);
  Stop();
  EXPECT_EQ(desktop.TraceCount("Watch - Thread execute command ... done"), 21U);
  for (int n = 1; n <= 20; ++n) EXPECT_TRUE(desktop.Holds(std::to_string(n), "p\n"));
  EXPECT_FALSE(Exists("never.txt"));
}

TEST_F(Commands, LoadCallsAFunctionOfALibrary) {
  Run({"load " QIXX_CALLED_LIBRARY ",Called " + desktop.Path("called.txt"),
       "load /nonexistent.so,Called x", never_});
  EXPECT_TRUE(desktop.Holds("called.txt", "called\n"));
  Stop();
  EXPECT_EQ(desktop.TraceCount("Helper - Call external ... OK"), 1U);
  EXPECT_EQ(desktop.TraceCount("Helper - Failed to load '/nonexistent.so'"), 1U);
  EXPECT_EQ(desktop.TraceCount("Helper - Call external ... FAILED"), 1U);
  EXPECT_FALSE(Exists("never.txt"));
}

TEST_F(Commands, ParallelCommandMayEndItsThreadOrStayInALibraryToTheEnd) {
  Run({"parallel load " QIXX_CALLED_LIBRARY ",Stay " + desktop.Path("called.txt"), "/bin/true",
       "parallel load " QIXX_CALLED_LIBRARY ",Leave x"});
  EXPECT_TRUE(desktop.Holds("called.txt", "called\n"));
  Stop();
  EXPECT_EQ(Read("called.txt"), "called\n");
}

TEST_F(Commands, NoCodeOfALibraryRunsBehindTheEnd) {
#ifdef QIXX_SANITIZED
  GTEST_SKIP() << "its own code runs there";
#endif
  Run({"load " QIXX_CALLED_LIBRARY ",Remain " + desktop.Path("called.txt")});
  ASSERT_TRUE(desktop.Traced("Helper - Call external ... OK"));
  Stop();
  EXPECT_FALSE(Exists("called.txt"));
  EXPECT_EQ(desktop.TraceCount("WrapperPkcs11 - Destroyed"), 1U);
}

TEST_F(Commands, ExternWritesTheLibrarysAnswerIntoAFile) {
  const std::string file = desktop.Home().Write("logon.conf", "[User]\nDomain=old\nUsername=\n");
  Run({"extern " QIXX_CALLED_LIBRARY ",ann;example -config " + file, Echo("next", "next.txt")});
  EXPECT_TRUE(desktop.Holds("logon.conf", "[User]\nDomain=example\nUsername=ann\n"));
  EXPECT_TRUE(desktop.Holds("next.txt", "next\n"));
  EXPECT_FALSE(Exists("logon.conf.org"));
}

TEST_F(Commands, DirectFormRunsOneCommandForBothEventsUnlessMarked) {
  const std::string touched = desktop.Path("touched.txt");
  for (const std::string mark : {"~", ""}) {
    desktop.Configure(("[Command]\nWatch=-sync " + mark + "/bin/touch ").append(touched));
    fs::remove(desktop.Path("trace.log"));
    RunConfigured();
    EXPECT_TRUE(Eventually([&] { return fs::remove(touched); }));
    RemoveCard();
    EXPECT_TRUE(!mark.empty() || Eventually([&] { return fs::remove(touched); }));
    Stop();
    EXPECT_FALSE(fs::exists(touched));
  }
}

TEST_F(Commands, SecretsReachNeitherTheTraceNorStandardError) {
  // Words that no process id, thread or time of a trace line can hold by chance.
  desktop.Configure(
      "[Command]\nWatch=-sync config A -pwd SecretOfA|B -pwd SecretOfB\n[Watch A -pwd SecretOfA "
      "Insert]\n1=/bin/echo 100% -pin SecretOfEcho -password \"open sesame\" -PUK   SecretPuk\n"
      "2=application \"/none -pin SecretOfNone\" x\n3=load /none -pin SecretOfLoad,f x\n");
  desktop.InsertCard(1);
  desktop.Start({"-p", "/bin/true", "-c", desktop.Path("none.conf"), "-sopin", "SecretOfLine"});
  ASSERT_TRUE(desktop.Traced("Watch - Connected slot 1"));
  Stop();
  const std::string told = Read("trace.log") + Errors();
  for (const char* shown : {"-pin ************ ", "section 'Watch B -pwd ********* Insert'"}) {
    EXPECT_NE(told.find(shown), std::string::npos) << told;
  }
  for (const char* secret : {"Secret", "sesame"}) EXPECT_EQ(told.find(secret), told.npos) << told;
}

}  // namespace
}  // namespace qixx::testing
