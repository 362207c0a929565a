// The process from its command line to its end: options, the watch command, the request to stop.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <csignal>
#include <ctime>
#include <optional>
#include <string>

#include "runtime/product.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "tests/support/environment.h"
#include "tests/support/temporary_folder.h"
#include "watch/configuration.h"
#include "watch/extra_watchers.h"
#include "watch/options.h"
#include "watch/stop.h"
#include "watch/watch_main.h"

namespace qixx::testing {
namespace {

std::string Shown(const char* name, std::string_view text) {
  return text.empty() ? "" : std::string(name) + "=" + std::string(text) + ";";
}
std::string Shown(const char* name, std::uint64_t number, std::uint64_t usual = 0) {
  return number == usual ? "" : Shown(name, std::to_string(number));
}

/// What a record holds, but for empty fields, zeros and the usual round limit.
std::string Describe(const watch::CWatchOptions& record) {
  return Shown("r", record.registry) + Shown("p", record.program) + Shown("c", record.configFile) +
         Shown("a", record.arguments) + Shown("m", record.message) + Shown("m2", record.message2) +
         Shown("match", record.match) + Shown("simulate", record.simulate) +
         Shown("rest", record.rest) + Shown("background", record.background) +
         Shown("in", record.insertWait) + Shown("out", record.removeWait) +
         Shown("term", record.terminate) + Shown("recognized", record.recognized) +
         Shown("hidein", record.hideInsert) + Shown("hideout", record.hideRemove) +
         Shown("sync", record.sync) + Shown("w", record.waitFlag) +
         Shown("n", record.roundLimit, watch::kEndlessRounds) + Shown("section", record.section);
}

TEST(Options, TextsFillTheRecordOneAfterTheOther) {
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {"keyword form does not read -c beside -r",
       "-p prog -r reg -c file -a \"a b\" -n 3 -w 5 -hide -sync -t -recognized ",
       "r=reg;p=prog;a=a b;in=5;term=1;recognized=1;hidein=1;sync=1;n=3;"},
      {"quoted value without end", "-p a -c b -a  \"x y", "p=a;c=b;a=x y;"},
      {"-m wants a second blank", "-p a -c b -m no ", "p=a;c=b;"},
      {"-p alone is kept beside the rest", "-p prog x ", "p=prog;rest=-p prog x ;"},
      {"positional form",
       "-w -match \"cn=x\" -wait \"5|7\" -message \"a|b|c\" -hide remove -sync -term -recognized x",
       "m=a;m2=b|c;match=cn=x;rest=x;in=5;out=7;term=1;recognized=1;hideout=1;sync=1;w=1;"},
      {"order is fixed", "-sync -match \"x\" ", "rest=-match \"x\" ;sync=1;"},
      {"blanks between options are not skipped", "-w  -sync ", "rest= -sync ;w=1;"},
      {"-hide insert at the very end", "-hide insert", "rest=insert;hidein=1;hideout=1;"},
      {"numbers", "-wait \"-1| 99999999999999999999\" ", "out=18446744073709551615;"},
      {"one word in quotes names no section", "-s \"Extra\" c", "rest=c;"},
      {"a later text overlays", "-match \"old\" -sync config\n-w -hide x",
       "match=old;rest=x;hidein=1;hideout=1;sync=1;w=1;"},
      {"keyword form clears a match", "-match \"old\" -sync config\n-p x -c y -n 3 \n",
       "p=x;c=y;rest=config;sync=1;n=3;"},
  };
  for (const auto& [name, texts, expected] : rows) {
    watch::CWatchOptions record;
    for (std::size_t i = 0; const auto text = runtime::GetField(texts, i, '\n'); ++i) {
      watch::ParseWatchOptions(*text, record);
    }
    EXPECT_EQ(Describe(record), expected + std::string("section=Watch;")) << name;
  }
}

TEST(Options, ValuesAreCutAtTheirLimits) {
  const std::string text(300, 'x');
  watch::CWatchOptions record;
  watch::ParseWatchOptions("-match \"" + text + "\" -simulate \"" + text + "\" ", record);
  EXPECT_EQ(record.match.size(), 255U);
  EXPECT_EQ(record.simulate.size(), 31U);
  watch::ParseWatchOptions("-p " + text + " -c y -n " + std::string(98, '0') + "123 ", record);
  EXPECT_EQ(record.program.size(), 300U) << "a piece of a name would be another file's";
  EXPECT_EQ(record.roundLimit, 1U) << "a number counts up to its 99th character";
  const char* const one = text.c_str();
  const std::string line =
      watch::JoinArguments(6, std::array{"x", "-a", one, one, one, one}.data());
  EXPECT_EQ(line.size(), 1023U);
  EXPECT_TRUE(line.starts_with("-a xx"));
}

TEST(Trace, SettingsChooseTheTargetAndCallModeLetsOneLinePass) {
  const TemporaryFolder folder;
  const ScopedVariable path("qixconfigglobal", folder.Path("system.conf").c_str());
  const ScopedVariable home("HOME", folder.Path().c_str());
  const std::string settings = "[Trace Call]\nwatch=" + folder.Path("call.log") +
                               "\n[Trace]\nFile=" + folder.Path("file.log") + "\n";
  runtime::InitProductIdentity();
  watch::ConnectRuntimeSettings();
  folder.Write("system.conf", settings);
  runtime::TraceInit("watch");
  EXPECT_NE(folder.Read("file.log"), "");
  folder.Write("system.conf", settings + "watch=\n");  // present, so "File" does not count
  runtime::TraceInit("watch");
  runtime::TraceWrite("lost");
  runtime::TraceReleaseOneLine();
  for (const char* const text : {"passed", "lost"}) runtime::TraceWrite("%s", text);
  EXPECT_THAT(folder.Read("call.log"), ::testing::MatchesRegex("\\[[^\n]* passed\n"));
  runtime::TraceSetCallTarget(std::nullopt, 0);
}

/// Every number below a thousand is one of `file` by then, those of the pipe too.
[[noreturn]] void StopWhileDescriptorsAreOthers(const std::string& file) {
  ::signal(SIGHUP, SIG_IGN);
  ::signal(SIGINT, SIG_DFL);
  watch::InstallStopHandlers();
  watch::StartExtraWatchers("One", "/bin/true");
  for (int descriptor = 3; descriptor < 1000; ++descriptor) ::close(descriptor);
  while (::open(file.c_str(), O_RDWR | O_CLOEXEC) < 999) continue;
  ::raise(SIGHUP);
  watch::StoppableClock clock;
  if (!watch::WatchSleep(clock, 1)) ::_exit(1);
  ::raise(SIGTERM);
  watch::LeaveExtraWatchers();
  if (watch::WatchSleep(clock, 600'000)) ::_exit(2);
  ::raise(SIGINT);
  ::_exit(3);
}

TEST(Stop, WritesIntoNoFileThatTookThePlaceOfADescriptorAndTheSecondSignalEndsTheProcess) {
  const TemporaryFolder folder;
  const std::string file = folder.Write("file", "text");
  EXPECT_EXIT(StopWhileDescriptorsAreOthers(file), ::testing::KilledBySignal(SIGINT), "");
  EXPECT_EQ(folder.Read("file"), "text");
}

TEST(Clock, EndsAWaitByNewsOnly) {
  watch::StoppableClock clock;
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  EXPECT_EQ(clock.Wait(10, ends[0]), watch::WakeUp::kTimePassed);
  EXPECT_EQ(::write(ends[1], "", 1), 1);
  EXPECT_EQ(clock.Wait(600'000, ends[0]), watch::WakeUp::kReadable);
  ::close(ends[1]);
  const std::clock_t before = std::clock();
  for (const int broken : {ends[0], ends[1], INT_MAX, INT_MIN, -2}) {
    EXPECT_EQ(clock.Wait(300, broken), watch::WakeUp::kTimePassed) << broken;
  }
  EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 20) << "of 900 ms";
  ::close(ends[0]);
}

}  // namespace
}  // namespace qixx::testing
