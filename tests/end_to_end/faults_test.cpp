// What the service makes of everything that can be wrong around it: it traces and goes on.
#include <sys/stat.h>

#include "tests/end_to_end/service_test.h"
#include "tests/support/eventually.h"
#include "tests/support/notify_listener.h"

namespace qixx::testing {
namespace {

using namespace std::chrono_literals;

using Faults = ServiceTest;

TEST_F(Faults, MissingLibraryIsTracedAndTheWatchGoesOn) {
  desktop.Use("/nonexistent/");
  Configure("-sync", {Echo("in", "in.txt")});
  desktop.Start();
  EXPECT_TRUE(desktop.Traced("WrapperPkcs11 - Failed to load library"));
  EXPECT_TRUE(desktop.Traced("Watch - Event"));
  for (const char* folder : {"", "/nonexistent/", "/usr/lib/"}) {
    const std::string library = std::string(folder) + "libqixp11.so";
    const std::string told =
        std::string("qixxwatch: no library ").append(library).append(": ").append(library);
    EXPECT_NE(desktop.Home().Read("stderr.txt").find(told + ": cannot open"), std::string::npos);
  }
}

TEST_F(Faults, PlainStandardModuleServes) {
  desktop.Use(QIXX_SOFTCARD_PLAIN_FOLDER);
  desktop.InsertCard(1);
  Configure("-sync", {Echo("in", "in.txt")});
  desktop.Start();
  EXPECT_TRUE(desktop.Holds("in.txt", "in\n"));
  EXPECT_TRUE(desktop.Traced("WrapperPkcs11 - Function C_GetVariable missing"));
  EXPECT_TRUE(desktop.Traced("WrapperPkcs11 - Loaded extended '" QIXX_SOFTCARD_PLAIN_FOLDER
                             "libqixp11.so'"));
}

TEST_F(Faults, LibraryThatComesUpLateOrIsFinalisedByOthersIsInitialisedLater) {
  desktop.SetModuleFaults("fail=C_Initialize:0x30\n");
  Configure("-sync", {Echo("in", "in.txt")}, {Echo("out", "out.txt")});
  desktop.Start();
  ASSERT_TRUE(desktop.Traced("WrapperPkcs11 - Initialize count 0 at initialize"));
  EXPECT_EQ(desktop.Home().Read("stderr.txt"),
            "qixxwatch: library " QIXX_SOFTCARD_FOLDER
            "libqixp11.so does not start: C_Initialize gives 0x00000030\n");
  desktop.SetModuleFaults("");
  ASSERT_TRUE(desktop.Traced("WrapperPkcs11 - Initialize count 1 at initialize"));
  desktop.InsertCard(1);
  EXPECT_TRUE(desktop.Holds("in.txt", "in\n"));
  ASSERT_TRUE(desktop.Traced("Watch - Connected slot 1"));
  desktop.SetModuleFaults("fail=C_WaitForSlotEvent:0x190\n");
  ASSERT_TRUE(desktop.Traced("WrapperPkcs11 - Initialize count 0 at finalize"));
  desktop.RemoveCard(1);
  desktop.SetModuleFaults("");
  // The watch tries again after 30 of its rounds, 20 s with a card connected.
  EXPECT_TRUE(
      Eventually([&] { return desktop.TraceCount("Watch - Remove event ... done") == 1; }, 45s));
  EXPECT_TRUE(desktop.Holds("out.txt", "out\n"));
  EXPECT_EQ(desktop.TraceCount("WrapperPkcs11 - Initialize count 1 at initialize"), 2U);
}

TEST_F(Faults, RestartForgetsNoCard) {
  std::filesystem::create_directories(desktop.Path("run"));
  desktop.SetVariable("RUNTIME_DIRECTORY", desktop.Path("run") + ":/nonexistent");
  desktop.InsertCard(1);
  Watch("-sync", {Echo("in", "in.txt")}, {Echo("out", "out.txt")});
  ASSERT_TRUE(desktop.Traced("Watch - Connected slot 1"));
  EXPECT_EQ(desktop.Stop(SIGKILL), -SIGKILL);
  EXPECT_TRUE(Exists("run/card-Watch"));
  desktop.Start();
  ASSERT_TRUE(desktop.Traced("Watch - Connected slot 1", 2));
  EXPECT_EQ(desktop.TraceCount("Watch - Remove event ..."), 0U) << "the card is still in";
  Stop();
  desktop.RemoveCard(1);
  desktop.Start();
  EXPECT_TRUE(desktop.Holds("out.txt", "out\n"));
  ASSERT_TRUE(desktop.Traced("Watch - Disconnected slot 0"));
  EXPECT_FALSE(Exists("run/card-Watch"));
  Stop();
  desktop.Start();
  ASSERT_TRUE(desktop.Traced("Watch - Event", 4));
  Stop();
  EXPECT_EQ(desktop.TraceCount("Watch - Remove event ..."), 1U);
}

TEST_F(Faults, StopDuringTheWaitOfARemovalLeavesItToTheNextStart) {
  std::filesystem::create_directories(desktop.Path("run"));
  desktop.SetVariable("RUNTIME_DIRECTORY", desktop.Path("run"));
  desktop.InsertCard(1);
  Watch("-wait \"0|600\" -sync", {"kill x"}, {Echo("out", "out.txt")});
  ASSERT_TRUE(desktop.Traced("Watch - Connected slot 1"));
  desktop.RemoveCard(1);
  ASSERT_TRUE(desktop.Traced("Watch - Remove event ..."));
  Stop();
  EXPECT_FALSE(Exists("out.txt"));
  EXPECT_TRUE(Exists("run/card-Watch"));
}

TEST_F(Faults, HangingLibraryIsSeenByTheServiceManager) {
  NotifyListener listener(desktop.Path("notify"));
  desktop.SetVariable("NOTIFY_SOCKET", desktop.Path("notify"));
  desktop.SetVariable("WATCHDOG_USEC", "200000");
  desktop.InsertCard(1);
  Watch("-sync", {"/usr/bin/env > " + desktop.Path("env.txt")});
  std::vector<std::string> told;
  const auto isTold = [&](const std::string& text) {
    return Eventually([&] {
      const std::vector<std::string> more = listener.Take();
      told.insert(told.end(), more.begin(), more.end());
      return std::ranges::any_of(told, [&](auto& line) { return line.starts_with(text); });
    });
  };
  EXPECT_TRUE(isTold("STATUS=Card in slot 1 ("));
  EXPECT_EQ(told.front(), "READY=1");
  EXPECT_TRUE(Eventually([&] { return listener.Take(), listener.Signs() != 0; }));
  EXPECT_NE(desktop.Home().Read("env.txt"), "");
  EXPECT_EQ(desktop.Home().Read("env.txt").find("NOTIFY_SOCKET"), std::string::npos);

  desktop.SetModuleFaults("hang=C_WaitForSlotEvent\n");
  EXPECT_TRUE(Eventually([&] {
    listener.Take();
    ::usleep(800'000);
    return listener.Take(), listener.Signs() == 0;
  })) << "no sign within four times the time";
  desktop.SetModuleFaults("");
  EXPECT_TRUE(Eventually([&] { return listener.Take(), listener.Signs() != 0; }));
  Stop();
  EXPECT_TRUE(isTold("STOPPING=1"));
}

TEST_F(Faults, ClosedStandardDescriptorsHarmNoFile) {
  Configure("-sync", {Echo("in", "in.txt")});
  desktop.InsertCard(1);
  desktop.Start({"-c", "exec " QIXX_PROGRAM " <&- >&- 2>&-"}, "/bin/sh");
  EXPECT_TRUE(desktop.Holds("in.txt", "in\n"));
}

/// Lines of the module's faults.
class FailingFunction : public Faults, public ::testing::WithParamInterface<const char*> {
 protected:
  /// A card goes out while the functions fail, and in when they do not any more.
  void Survive(const std::string& faults) {
    desktop.SetModuleFaults(faults);
    desktop.InsertCard(1);
    Watch("-match \"cn=x\" -recognized", {"kill %UPN%"}, {"kill x"});
    desktop.RemoveCard(1);
    desktop.SetModuleFaults("");
    ASSERT_TRUE(desktop.Traced("Watch - Remove event ..."));
    desktop.InsertCard(1);
    EXPECT_TRUE(desktop.Traced("Watch - Inserted event ..."));
  }
};

TEST_P(FailingFunction, IsSurvived) {
  Survive("fail=" + std::string(GetParam()) + ":0x5\n");
}

TEST_F(FailingFunction, MayThrowOrEndTheThread) {
  Survive(
      "throw=C_WaitForSlotEvent\nexit=C_GetSlotInfo\nthrow=C_GetTokenInfo\n"
      "exit=C_OpenSession\nexit=C_FindObjects\nthrow=C_FindObjectsFinal\nthrow=C_CloseSession\n");
  EXPECT_TRUE(desktop.Traced("WrapperPkcs11 - Exception in C_WaitForSlotEvent"));
  desktop.SetModuleFaults("exit=C_WaitForSlotEvent\nthrow=C_Finalize\n");
  EXPECT_TRUE(desktop.Traced("WrapperPkcs11 - Exception in C_WaitForSlotEvent", 3));
  Stop();
  EXPECT_TRUE(desktop.Traced("WrapperPkcs11 - Exception in C_Finalize"));
  EXPECT_TRUE(desktop.Traced("WrapperPkcs11 - Destroyed"));
}

INSTANTIATE_TEST_SUITE_P(Faults, FailingFunction,
                         ::testing::Values("C_GetSlotList", "C_GetSlotInfo", "C_GetTokenInfo",
                                           "C_WaitForSlotEvent", "C_OpenSession",
                                           "C_FindObjectsInit", "C_FindObjects",
                                           "C_FindObjectsFinal", "C_GetAttributeValue",
                                           "C_CloseSession", "C_Finalize"),
                         [](const auto& function) { return std::string(function.param); });

TEST_F(Faults, BrokenTextsAreTracedAndLeaveTheServiceInOrder) {
  struct BrokenText {
    const char* name;
    std::string entry;
    std::string watch = "-sync config Watch";
  };
  const std::string much(5000, 'm');
  const BrokenText rows[] = {
      {"SectionOf5000", "kill x", "-sync config " + much},
      {"SectionOf51", "kill x", "-sync config " + std::string(51, 's')},
      {"MatchWithoutClosingQuote", "kill x", "-match \"cn=x"},
      {"MatchAtTheVeryEnd", "kill x", "-match \""},
      {"LongQuotedValues", "kill x",
       "-match \"" + std::string(300, 'a') + "\" -wait \"" + std::string(200, ' ') +
           "\" -message \"" + std::string(300, 'b') + "|" + std::string(100, 'c') +
           "\" -sync config Watch"},
      {"EndlessWait", "kill x", "-wait \"99999999999999999999999|1\" -sync config Watch"},
      {"ExtraWatchersOfNothing", "kill x", "-sync config Watch|||" + much},
      {"EntryOf5000", much},
      {"PercentSigns", "%s%n%UPN%%OID.%%OID.cn%%%d"},
      {"QuotesOnly", "application \"\"\"\" \" \""},
      {"ApplicationWithoutProgram", "application "},
      {"EmptyLoad", "load , "},
      {"EmptyExtern", "extern ,"},
      {"EmptySet", "set -config "},
      {"NoProgram", "/nonexistent/program"},
      {"ControlBytes", "/bin/echo \x01\x7f\xff\xfe"},
  };
  desktop.InsertCard(1);
  for (const BrokenText& row : rows) {
    SCOPED_TRACE(row.name);
    std::filesystem::remove(desktop.Path("trace.log"));
    desktop.Configure("[Command]\nWatch=" + row.watch + "\n[Watch Insert]\n1=" + row.entry + "\n");
    desktop.Start();
    EXPECT_TRUE(Eventually([&] {
      return desktop.TraceCount("Watch - Stopped") +
             desktop.TraceCount("Watch - Inserted event ...");
    }));
    Stop();
  }
}

TEST_F(Faults, UnusableFilesAreNoHindrance) {
  const std::string fifo = desktop.Path("fifo");
  const std::string folder = desktop.Path("folder");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  std::filesystem::create_directories(folder);
  Configure("-sync", {"kill x"},
            {"set -config " + fifo, "set -config " + folder,
             "set -config " + desktop.Path("gone/gone.conf"), "/bin/echo x > " + folder,
             Echo("end", "end.txt")});
  desktop.InsertCard(1);
  desktop.Start();
  ASSERT_TRUE(desktop.Traced("Watch - Connected slot 1"));
  desktop.RemoveCard(1);
  EXPECT_TRUE(desktop.Holds("end.txt", "end\n"));
  // Now the system's file vanishes too: there is nothing to run.
  std::filesystem::remove(desktop.Path("system.conf"));
  desktop.InsertCard(1);
  ASSERT_TRUE(desktop.Traced("Watch - Inserted event ... FAILED"));
  desktop.RemoveCard(1);
  ASSERT_TRUE(desktop.Traced("Watch - Remove event ... done", 2));
  EXPECT_NE(desktop.Home()
                .Read("stderr.txt")
                .find("qixxwatch: a removal ran nothing: " + desktop.Path("system.conf") +
                      " cannot be read: No such file or directory\n"),
            std::string::npos);
}

TEST_F(Faults, WhatKeepsTheServiceFromWorkingIsSaidOnStandardError) {
  const std::string file = desktop.Path("system.conf");
  const std::tuple<std::string, Lines, std::string> rows[] = {
      {"", {}, "nothing to watch: " + file + " has no entry Watch in section Command"},
      {"", {"?"}, ""},
      {"", {"-sync"}, "nothing to run: no command, and no 'config', behind the options"},
      {"[Command]\nWatch=config Foo\n",
       {},
       "nothing to run: " + file +
           " has no entry 1 in section 'Watch Foo Insert' or 'Watch Foo Remove'"},
      {"-", {}, "nothing to watch: " + file + " cannot be read: No such file or directory"},
      {"-", {"config"}, "nothing to run: " + file + " cannot be read: No such file or directory"},
  };
  for (const auto& [text, words, told] : rows) {
    SCOPED_TRACE(told);
    std::filesystem::remove(desktop.Path("trace.log"));
    desktop.Configure(text);
    if (text == "-") std::filesystem::remove(file);
    desktop.Start(words);
    EXPECT_EQ(desktop.Stop(0), 0) << "it ends by itself, and in order";
    EXPECT_EQ(desktop.Home().Read("stderr.txt"), told.empty() ? "" : "qixxwatch: " + told + "\n");
    const bool noCommand = told.empty() || told.starts_with("nothing to watch");
    EXPECT_EQ(desktop.TraceCount(noCommand ? "Watch - Failed to parse config"
                                           : "Watch - No event commands available"),
              text == "-" ? 0U : 1U);
    std::filesystem::remove(desktop.Path("stderr.txt"));
  }
}

TEST_F(Faults, TraceThatTakesNoLineIsSaidOnStandardError) {
  const std::pair<std::string, std::string> rows[] = {
      {"watch.dat", "ends neither in .log nor in .txt"},
      {"none/watch.log", "cannot be opened: No such file or directory"},
  };
  for (const auto& [name, told] : rows) {
    desktop.SetVariable("qix:Trace:watch", desktop.Path(name));
    desktop.Start({"?"});
    EXPECT_EQ(desktop.Stop(0), 0);
    EXPECT_EQ(desktop.Home().Read("stderr.txt"),
              "qixxwatch: no trace: '" + desktop.Path(name) + "' " + told + "\n");
    std::filesystem::remove(desktop.Path("stderr.txt"));
  }
}

TEST_F(Faults, FailingCommandsAreSaidInTheTraceAndOnStandardError) {
  const std::string program = desktop.WriteProgram("exit 7");
  Watch("", {"kill x"},
        {"/no/program -pin 1234", program, "/bin/true", "/bin/sh -c \"kill -9 $$\"",
         "load /no/library,Call -pin 1234", "set -config /no/file", "set -config /no/file",
         "close x", Echo("end", "end.txt")});
  EXPECT_TRUE(desktop.Holds("end.txt", "end\n"));
  Stop();
  EXPECT_EQ(desktop.TraceCount("Helper - Failed to start '/no/program': No such file or directory"),
            1U);
  std::size_t ends = 0;
  for (const std::string& line : desktop.TraceAfter("Helper - Process ")) {
    ends += line.ends_with(" ended with exit code 7") || line.ends_with(" was ended by signal 9");
  }
  EXPECT_EQ(ends, 2U);
  EXPECT_EQ(desktop.Home().Read("stderr.txt"),
            "qixxwatch: '/no/program' not started: No such file or directory\n"
            "qixxwatch: '" +
                program +
                "' ended with exit code 7\n"
                "qixxwatch: '/bin/sh' was ended by signal 9\n"
                "qixxwatch: command 'load /no/library,Call -pin ****' failed\n"
                "qixxwatch: '/no/file' stays as it is: it is missing or may not be changed\n"
                "qixxwatch: command 'set -config /no/file' failed\n");
}

}  // namespace
}  // namespace qixx::testing
