// What the service makes of everything that can be wrong around it: it traces and goes on.
#include <sys/stat.h>

#include "tests/end_to_end/service_test.h"
#include "tests/support/eventually.h"
#include "tests/support/notify_listener.h"

namespace qixx::testing {
namespace {

using Faults = ServiceTest;

TEST_F(Faults, MissingLibraryIsTracedAndTheWatchGoesOn) {
  desktop.Use("/nonexistent/");
  Watch("-sync", {"kill x"});
  EXPECT_EQ(desktop.TraceCount("WrapperPkcs11 - Failed to load library"), 1U);
  const auto isTold = [this](const std::string& library) {
    const std::string told = "qixxwatch: no library " + library + ": " + library + ": cannot open";
    return Errors().find(told) != std::string::npos;
  };
  for (const char* folder : {"", "/nonexistent/", "/usr/lib/"}) {
    EXPECT_TRUE(isTold(std::string(folder).append("libqixp11.so"))) << folder;
  }
}

TEST_F(Faults, PlainStandardModuleServes) {
  desktop.Use(QIXX_SOFTCARD_PLAIN_FOLDER);
  Watch("-sync", {Echo("in", "in.txt")});
  InsertCard();
  EXPECT_TRUE(desktop.Holds("in.txt", "in\n"));
  EXPECT_TRUE(desktop.Traced("WrapperPkcs11 - Function C_GetVariable missing"));
}

TEST_F(Faults, RestartForgetsNoCard) {
  std::filesystem::create_directories(desktop.Path("run"));
  desktop.SetVariable("RUNTIME_DIRECTORY", desktop.Path("run") + ":/nonexistent");
  Watch("-wait \"0|600\" -sync", {"kill x"}, {Echo("out", "out.txt")});
  InsertCard();
  EXPECT_EQ(desktop.Stop(SIGKILL), -SIGKILL);
  desktop.Start();
  ASSERT_TRUE(desktop.Traced("Watch - Connected slot 1", 2));
  EXPECT_EQ(desktop.TraceCount("Watch - Remove event ..."), 0U) << "the card is still in";
  desktop.RemoveCard(1);
  ASSERT_TRUE(desktop.Traced("Watch - Remove event ..."));
  Stop();
  EXPECT_FALSE(Exists("out.txt")) << "it was stopped while the removal waited";
  Watch("-sync", {"kill x"}, {Echo("out", "out.txt")});
  EXPECT_TRUE(desktop.Holds("out.txt", "out\n"));
  ASSERT_TRUE(desktop.Traced("Watch - Disconnected slot 0"));
  EXPECT_FALSE(Exists("run/card-Watch"));
}

TEST_F(Faults, HangingLibraryIsSeenByTheServiceManager) {
  NotifyListener listener(desktop.Path("notify"));
  desktop.SetVariable("NOTIFY_SOCKET", desktop.Path("notify"));
  desktop.SetVariable("WATCHDOG_USEC", "200000");
  Watch("-sync", {"/usr/bin/env > " + desktop.Path("env.txt")});
  InsertCard();
  Lines told;
  const auto isTold = [&](const std::string& text) {
    return Eventually([&] {
      std::ranges::move(listener.Take(), std::back_inserter(told));
      return std::ranges::any_of(told, [&](auto& line) { return line.starts_with(text); });
    });
  };
  EXPECT_TRUE(isTold("STATUS=Card in slot 1 ("));
  EXPECT_EQ(told.front(), "READY=1");
  const auto givesSigns = [&] { return listener.Take(), listener.Signs() != 0; };
  EXPECT_TRUE(Eventually(givesSigns));
  EXPECT_NE(Read("env.txt"), "");
  EXPECT_EQ(Read("env.txt").find("NOTIFY_SOCKET"), std::string::npos);

  desktop.SetModuleFaults("hang=C_WaitForSlotEvent\n");
  EXPECT_TRUE(Eventually([&] {
    listener.Take();
    ::usleep(800'000);
    return !givesSigns();
  })) << "no sign within four times the time";
  desktop.SetModuleFaults("");
  EXPECT_TRUE(Eventually(givesSigns));
  Stop();
  EXPECT_TRUE(isTold("STOPPING=1"));
}

TEST_F(Faults, ClosedStandardDescriptorsAreNoFiles) {
  Configure("-sync", {Echo("in", "in.txt")});
  desktop.InsertCard(1);
  desktop.Start({"-c", "exec " QIXX_PROGRAM " <&- >&- 2>&-"}, "/bin/sh");
  EXPECT_TRUE(desktop.Holds("in.txt", "in\n"));
  const std::string open = "/proc/" + std::to_string(desktop.Process()) + "/fd/";
  for (const char* const standard : {"0", "1", "2"}) {
    EXPECT_EQ(std::filesystem::read_symlink(open + standard), "/dev/null");
  }
}

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
    InsertCard();
  }
};

TEST_P(FailingFunction, IsSurvived) {
  const std::string name = GetParam();
  Survive("fail=" + name + ":0x5\n");
  if (name != "C_GetTokenInfo") return;
  EXPECT_EQ(desktop.TraceCount("Watch - Inserted event ..."), 1U) << "a token that cannot be read";
}
INSTANTIATE_TEST_SUITE_P(Faults, FailingFunction,
                         ::testing::Values("C_GetSlotList", "C_GetSlotInfo", "C_GetTokenInfo",
                                           "C_WaitForSlotEvent", "C_OpenSession",
                                           "C_FindObjectsInit", "C_FindObjects",
                                           "C_FindObjectsFinal", "C_GetAttributeValue",
                                           "C_CloseSession", "C_Finalize"),
                         [](const auto& function) { return std::string(function.param); });

TEST_F(FailingFunction, MayThrowOrEndTheThread) {
  Survive(
      "throw=C_WaitForSlotEvent\nexit=C_GetSlotInfo\nthrow=C_GetTokenInfo\n"
      "exit=C_OpenSession\nexit=C_FindObjects\nthrow=C_FindObjectsFinal\nthrow=C_CloseSession\n");
  desktop.SetModuleFaults("exit=C_WaitForSlotEvent\nthrow=C_Finalize\n");
  EXPECT_TRUE(desktop.Traced("WrapperPkcs11 - Exception in C_WaitForSlotEvent", 3));
  Stop();
  EXPECT_TRUE(desktop.Traced("WrapperPkcs11 - Exception in C_Finalize"));
}

TEST_F(Faults, BrokenTextsAreTracedAndLeaveTheServiceInOrder) {
  const std::string much(5000, 'm'), sync = "-sync config Watch";
  const Lines watches = {
      "-sync config " + much,
      "-sync config " + std::string(51, 's'),
      "-match \"cn=x",
      "-match \"",
      "-match \"" + std::string(300, 'a') + "\" -wait \"" + std::string(200, ' ') +
          "\" -message \"" + std::string(300, 'b') + "|" + std::string(100, 'c') + "\" " + sync,
      "-wait \"99999999999999999999999|1\" " + sync,
      sync + "|||" + much,
  };
  const Lines entries = {much,
                         "%s%n%UPN%%OID.%%OID.cn%%%d",
                         "application \"\"\"\" \" \"",
                         "application ",
                         "load , ",
                         "extern ,",
                         "set -config ",
                         "/nonexistent/program",
                         "/bin/echo \x01\x7f\xff\xfe"};
  desktop.InsertCard(1);
  const auto meet = [this](const std::string& watch, const std::string& entry) {
    SCOPED_TRACE(watch.substr(0, 60) + ": " + entry.substr(0, 60));
    std::filesystem::remove(desktop.Path("trace.log"));
    desktop.Configure("[Command]\nWatch=" + watch + "\n" + Section("Watch Insert", {entry}));
    desktop.Start();
    EXPECT_TRUE(Eventually([&] {
      return desktop.TraceCount("Watch - Stopped") +
             desktop.TraceCount("Watch - Inserted event ...");
    }));
    Stop();
  };
  for (const std::string& watch : watches) meet(watch, "kill x");
  for (const std::string& entry : entries) meet(sync, entry);
}

TEST_F(Faults, UnusableFilesAreNoHindrance) {
  const std::string fifo = desktop.Path("fifo"), folder = desktop.Path("folder");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  std::filesystem::create_directories(folder);
  Watch("-sync", {"kill x"},
        {"set -config " + fifo, "set -config " + folder,
         "set -config " + desktop.Path("gone/gone.conf"), "/bin/echo x > " + folder,
         Echo("end", "end.txt")});
  InsertCard();
  RemoveCard();
  EXPECT_TRUE(desktop.Holds("end.txt", "end\n"));
  // Now the system's file vanishes too: there is nothing to run.
  std::filesystem::remove(desktop.Path("system.conf"));
  desktop.InsertCard(1);
  ASSERT_TRUE(desktop.Traced("Watch - Inserted event ... FAILED"));
  desktop.RemoveCard(1);
  ASSERT_TRUE(desktop.Traced("Watch - Remove event ... done", 2));
  EXPECT_NE(Errors().find("qixxwatch: a removal ran nothing: " + desktop.Path("system.conf") +
                          " cannot be read: No such file or directory\n"),
            std::string::npos);
}

TEST_F(Faults, WhatKeepsTheServiceFromWorkingIsSaidOnStandardError) {
  const std::string file = desktop.Path("system.conf");
  const std::string missing = file + " cannot be read: No such file or directory";
  const std::string noEvents = "Watch - No event commands available";
  const std::string noWatch = "Watch - Failed to parse config";
  const std::tuple<std::string, Lines, std::string, std::string> rows[] = {
      {"", {}, "nothing to watch: " + file + " has no entry Watch in section Command", noWatch},
      {"", {"?"}, "", noWatch},
      {"", {"-sync"}, "nothing to run: no command, and no 'config', behind the options", noEvents},
      {"[Command]\nWatch=config Foo\n",
       {},
       "nothing to run: " + file +
           " has no entry 1 in section 'Watch Foo Insert' or 'Watch Foo Remove'",
       noEvents},
      {"-", {}, "nothing to watch: " + missing, ""},
      {"-", {"config"}, "nothing to run: " + missing, ""},
  };
  for (const auto& [text, words, told, traced] : rows) {
    SCOPED_TRACE(told);
    desktop.Configure(text);
    if (text == "-") std::filesystem::remove(file);
    EXPECT_EQ(RunToItsEnd(words), 0) << "it ends by itself, and in order";
    EXPECT_EQ(Errors(), told.empty() ? "" : "qixxwatch: " + told + "\n");
    EXPECT_EQ(desktop.TraceCount(traced), traced.empty() ? 0U : 1U);
  }
}

TEST_F(Faults, TraceThatTakesNoLineIsSaidOnStandardError) {
  const std::pair<std::string, std::string> rows[] = {
      {"watch.dat", "ends neither in .log nor in .txt"},
      {"none/watch.log", "cannot be opened: No such file or directory"},
  };
  for (const auto& [name, told] : rows) {
    desktop.SetVariable("qix:Trace:watch", desktop.Path(name));
    EXPECT_EQ(RunToItsEnd({"?"}), 0);
    EXPECT_EQ(Errors(), "qixxwatch: no trace: '" + desktop.Path(name) + "' " + told + "\n");
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
  const auto ended = std::ranges::count_if(desktop.TraceAfter("Helper - Process "), [](auto& line) {
    return line.ends_with(" ended with exit code 7") || line.ends_with(" was ended by signal 9");
  });
  EXPECT_EQ(ended, 2);
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
