// Every command keyword, lists with gaps and failures, and what happens to a list after them.
#include "tests/end_to_end/service_test.h"

namespace qixx::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;

class Commands : public ServiceTest {
 protected:
  /// Lets the service meet a card that is in already, and waits until its insert list has ended.
  void Run(const Lines& insert, const Lines& remove = {}) {
    ConfigureWatch("-sync", insert, remove);
    RunConfigured();
  }
  void RunConfigured(const Lines& words = {}) {
    InsertCard(1);
    Start(words);
    Await("Watch - Connected slot 1");
  }
};

TEST_F(Commands, ListEndsAtAGapAndOnInsertAlsoAtAFailure) {
  const Lines list = {"kill x", "", "-r HKLM", "close x", Echo("out") + "\n7=" + Echo("never")};
  Run(list, list);
  EXPECT_EQ(TraceCount("Watch - Execute insert command: close x"), 1U);
  EXPECT_EQ(TraceCount("Watch - Inserted event ... OK"), 1U);
  EXPECT_FALSE(Exists("out"));
  Remove();
  EXPECT_TRUE(Ran("out"));
  Stop();
  EXPECT_FALSE(Exists("never"));
}

TEST_F(Commands, ApplicationTakesAQuotedProgramAndArguments) {
  const std::string tool = WriteProgram("printf '%s|' \"$@\" > " + Path("seen"), "my programs/x");
  Run({"application \"" + tool + R"("   one "two words" "-o ption" "" "x")"});
  EXPECT_TRUE(Holds("seen", R"(one|two words|"-o ption"|""|"x"|)"));
}

TEST_F(Commands, ParallelCommandsRunBesideTheListAndEndBeforeTheService) {
  Run(Lines(20, "parallel " + WriteProgram("echo >> " + Path("ran"))));
  Stop();
  EXPECT_EQ(Read("ran"), std::string(20, '\n'));
}

TEST_F(Commands, ParallelCommandMayEndItsThreadOrStayInALibraryToTheEnd) {
  Run({"parallel load " QIXX_CALLED_LIBRARY ",Stay " + Path("called"), "/bin/true",
       "parallel load " QIXX_CALLED_LIBRARY ",Leave x"});
  EXPECT_TRUE(Ran("called"));
  Stop();
  EXPECT_EQ(Read("called"), "called\n");
}

TEST_F(Commands, ExternWritesTheLibrarysAnswerIntoAFile) {
  const std::string file = Home().Write("logon.conf", "[User]\nDomain=old\nUsername=\n");
  Run({"extern " QIXX_CALLED_LIBRARY ",ann;example -config " + file, Echo("next")});
  EXPECT_TRUE(Holds("logon.conf", "[User]\nDomain=example\nUsername=ann\n"));
  EXPECT_TRUE(Ran("next"));
  EXPECT_FALSE(Exists("logon.conf.org"));
}

TEST_F(Commands, DirectFormRunsOneCommandForBothEventsUnlessMarked) {
  for (const std::string mark : {"~", ""}) {
    Configure("[Command]\nWatch=-sync " + mark + WriteProgram("echo >> " + Path("ran" + mark)));
    fs::remove(Path("trace.log"));
    RunConfigured();
    Remove();
    Stop();
    EXPECT_EQ(Errors(), "");
  }
  EXPECT_TRUE(Holds("ran", "\n\n"));
  EXPECT_TRUE(Holds("ran~", "\n"));
}

TEST_F(Commands, SecretsReachNeitherTheTraceNorStandardError) {
  // Words that no process id, thread or time of a trace line can hold by chance.
  ConfigureWatchers(
      "-sync config A -pwd SecretOfA|B -pwd SecretOfB",
      {{"A -pwd SecretOfA Insert",
        {R"(/bin/echo 100% -pin SecretOfEcho -password "open sesame" -PUK   SecretPuk)",
         R"(application "/none -pin SecretOfNone" x)", "load /none -pin SecretOfLoad,f x"}}});
  RunConfigured({"-p", "/bin/true", "-c", Path("none.conf"), "-sopin", "SecretOfLine"});
  Stop();
  const std::string told = Read("trace.log") + Errors();
  EXPECT_THAT(told, HasSubstr("-pin ************ "));
  EXPECT_THAT(told, HasSubstr("section 'Watch B -pwd ********* Insert'"));
  EXPECT_THAT(told, Not(HasSubstr("Secret")));
  EXPECT_THAT(told, Not(HasSubstr("sesame")));
}

}  // namespace
}  // namespace qixx::testing
