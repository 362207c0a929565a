// What the service makes of everything that can be wrong around it: it traces and goes on.
#include "tests/end_to_end/service_test.h"
#include "tests/support/openssl.h"

namespace qixx::testing {
namespace {

using ::testing::HasSubstr;

using Faults = ServiceTest;

TEST_F(Faults, MissingLibraryIsTracedAndTheWatchGoesOn) {
  libraries_ = "/nonexistent/";
  Watch("-sync", {"kill x"});
  EXPECT_EQ(TraceCount("WrapperPkcs11 - Failed to load library"), 1U);
  const std::string library = libraries_ + "libqixp11.so";
  EXPECT_THAT(Errors(),
              HasSubstr("qixxwatch: no library " + library + ": " + library + ": cannot"));
}

TEST_F(Faults, ClosedStandardDescriptorsAreNoFiles) {
  ConfigureWatch("-sync", {Echo("in")});
  InsertCard(1);
  Start({"-c", "exec " QIXX_PROGRAM " <&- >&- 2>&-"}, "/bin/sh");
  EXPECT_TRUE(Ran("in"));
  for (const char* const standard : {"0", "1", "2"}) {
    const std::string descriptor = "/proc/" + std::to_string(process_) + "/fd/" + standard;
    EXPECT_EQ(std::filesystem::read_symlink(descriptor), "/dev/null");
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

TEST_F(Faults, WhatKeepsTheServiceFromWorkingIsSaidOnStandardError) {
  const std::string file = Path("system.conf"), nothing = "qixxwatch: nothing to ";
  EXPECT_EQ(RunToItsEnd(), 0) << "it ends by itself, and in order";
  EXPECT_EQ(Errors(), nothing + "watch: " + file + " cannot be read: No such file or directory\n");
  ConfigureWatchers("config Foo", {});
  EXPECT_EQ(RunToItsEnd(), 0);
  EXPECT_EQ(Errors(), nothing + "run: " + file +
                          " has no entry 1 in section 'Watch Foo Insert' or 'Watch Foo Remove'\n");
}

TEST_F(Faults, FailingCommandsAreSaidOnStandardError) {
  Watch("", {"kill x"},
        {"/no/program -pin 1234", "/bin/sh -c \"exit 7\"", "/bin/sh -c \"kill -9 $$\"",
         "load /no/library,Call -pin 1234", "set -config /no/file", Echo("out")});
  EXPECT_TRUE(Ran("out"));
  const std::string expected =
      "qixxwatch: '/bin/sh' ended with exit code 7\n"
      "qixxwatch: '/bin/sh' was ended by signal 9\n"
      "qixxwatch: '/no/file' cannot be set: it is missing or may not be changed\n"
      "qixxwatch: '/no/program' not started: No such file or directory\n"
      "qixxwatch: command 'load /no/library,Call -pin ****' failed\n"
      "qixxwatch: command 'set -config /no/file' failed\n";
  // A program may take its time to end.
  const std::string sorted = "LC_ALL=C sort " + Path("stderr.txt");
  EXPECT_TRUE(Eventually([&] { return OutputOf(sorted) == expected; }));
}

}  // namespace
}  // namespace qixx::testing
