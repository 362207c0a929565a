// What the service makes of everything that can be wrong around it: it traces and goes on.
#include "tests/end_to_end/service_test.h"
#include "tests/support/notify_listener.h"

namespace qixx::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

class Faults : public ServiceTest {
 protected:
  const std::string out_ = Echo("out");
};

TEST_F(Faults, MissingLibraryIsTracedAndTheWatchGoesOn) {
  Use("/nonexistent/");
  Watch("-sync", {"kill x"});
  EXPECT_EQ(TraceCount("WrapperPkcs11 - Failed to load library"), 1U);
  for (const std::string folder : {"", "/nonexistent/", "/usr/lib/"}) {
    const std::string library = folder + "libqixp11.so";
    EXPECT_THAT(Errors(),
                HasSubstr("qixxwatch: no library " + library + ": " + library + ": cannot open"));
  }
}

TEST_F(Faults, PlainStandardModuleServes) {
  Use(QIXX_SOFTCARD_PLAIN_FOLDER);
  Watch("-sync", {Echo("in")});
  Insert();
  EXPECT_TRUE(Ran("in"));
  Await("WrapperPkcs11 - Function C_GetVariable missing");
}

TEST_F(Faults, HangingLibraryIsSeenByTheServiceManager) {
  NotifyListener listener(Path("notify"));
  SetVariable("NOTIFY_SOCKET", Path("notify"));
  SetVariable("WATCHDOG_USEC", "200000");
  Watch("-sync", {"/usr/bin/env > " + Path("env")});
  Insert();
  EXPECT_THAT(listener.Take(3), ElementsAre("READY=1", "STATUS=No card",
                                            ::testing::StartsWith("STATUS=Card in slot 1 (")));
  EXPECT_THAT(Read("env"), AllOf(HasSubstr("PATH="), Not(HasSubstr("NOTIFY_SOCKET"))));
  const auto givesSigns = [&listener] { return listener.Take(), listener.Signs() != 0; };
  EXPECT_TRUE(Eventually(givesSigns));
  SetModuleFaults("hang=C_WaitForSlotEvent\n");
  EXPECT_TRUE(Eventually([&] {
    listener.Take();
    ::usleep(800'000);
    return !givesSigns();
  })) << "no sign within four times the time";
  SetModuleFaults("");
  EXPECT_TRUE(Eventually(givesSigns));
}

TEST_F(Faults, ClosedStandardDescriptorsAreNoFiles) {
  ConfigureWatch("-sync", {Echo("in")});
  InsertCard(1);
  Start({"-c", "exec " QIXX_PROGRAM " <&- >&- 2>&-"}, "/bin/sh");
  EXPECT_TRUE(Ran("in"));
  const fs::path open = "/proc/" + std::to_string(Process()) + "/fd";
  for (const char* const standard : {"0", "1", "2"}) {
    EXPECT_EQ(fs::read_symlink(open / standard), "/dev/null");
  }
}

/// A card goes out while the functions fail, and in when they do not any more.
TEST_F(Faults, LibraryMayThrowOrEndTheThread) {
  SetModuleFaults(
      "throw=C_WaitForSlotEvent\nexit=C_GetSlotInfo\nthrow=C_GetTokenInfo\n"
      "exit=C_OpenSession\nexit=C_FindObjects\nthrow=C_FindObjectsFinal\nthrow=C_CloseSession\n");
  InsertCard(1);
  Watch("-match \"cn=x\" -recognized", {"kill %UPN%"}, {"kill x"});
  RemoveCard(1);
  SetModuleFaults("");
  Await("Watch - Remove event ...");
  Insert();
  SetModuleFaults("exit=C_WaitForSlotEvent\nthrow=C_Finalize\n");
  Await("WrapperPkcs11 - Exception in C_WaitForSlotEvent", 3);
  Stop();
  Await("WrapperPkcs11 - Exception in C_Finalize");
}

TEST_F(Faults, BrokenCommandsLeaveTheServiceInOrder) {
  Watch(
      "-match \"cn=x\"", {"kill x"},
      {std::string(5000, 'm'), "%s%n%UPN%%OID.%%OID.cn%%%d", "application \"\"\"\" \" \"",
       "application ", "load , ", "extern ,", "set -config ", "/bin/echo \x01\x7f\xff\xfe", out_});
  EXPECT_TRUE(Ran("out"));
}

TEST_F(Faults, WhatKeepsTheServiceFromWorkingIsSaidOnStandardError) {
  const std::string file = Path("system.conf"), nothing = "qixxwatch: nothing to ";
  Configure("");
  EXPECT_EQ(RunToItsEnd(), 0) << "it ends by itself, and in order";
  EXPECT_EQ(Errors(), nothing + "watch: " + file + " has no entry Watch in section Command\n");
  ConfigureWatchers("config Foo", {});
  EXPECT_EQ(RunToItsEnd(), 0);
  EXPECT_EQ(Errors(), nothing + "run: " + file +
                          " has no entry 1 in section 'Watch Foo Insert' or 'Watch Foo Remove'\n");
  fs::remove(file);
  EXPECT_EQ(RunToItsEnd(), 0);
  EXPECT_EQ(Errors(), nothing + "watch: " + file + " cannot be read: No such file or directory\n");
}

TEST_F(Faults, FailingCommandsAreSaidOnStandardError) {
  const std::string program = WriteProgram("exit 7");
  Watch("", {"kill x"},
        {"/no/program -pin 1234", program, "/bin/sh -c \"kill -9 $$\"",
         "load /no/library,Call -pin 1234", "set -config /no/file", "close x", out_});
  EXPECT_TRUE(Ran("out"));
  Stop();
  EXPECT_EQ(Errors(),
            "qixxwatch: '/no/program' not started: No such file or directory\n"
            "qixxwatch: '" +
                program +
                "' ended with exit code 7\n"
                "qixxwatch: '/bin/sh' was ended by signal 9\n"
                "qixxwatch: command 'load /no/library,Call -pin ****' failed\n"
                "qixxwatch: '/no/file' cannot be set: it is missing or may not be changed\n"
                "qixxwatch: command 'set -config /no/file' failed\n");
}

}  // namespace
}  // namespace qixx::testing
