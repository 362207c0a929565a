#include "watch/command.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>

#include "runtime/children.h"
#include "runtime/text.h"
#include "tests/support/trace_capture.h"
#include "watch/terminate_list.h"

namespace qixx::testing {
namespace {

bool Execute(const std::string& text, bool insert = true, CK_SLOT_ID slot = 1) {
  return ExecuteCommand(slot, insert, text.c_str(), 0, true, true);
}

/// A child that sleeps until it is ended.
std::uint64_t StartSleeper() {
  const pid_t child = ::fork();
  if (child == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::pause();
    ::_exit(0);
  }
  RegisterChild(child);
  return static_cast<std::uint64_t>(child);
}

TEST(Command, KeywordsDecideTheResult) {
  const struct {
    const char* text;
    bool on_insert;
    bool on_remove;
  } rows[] = {
      {"-r HKLM", true, true},
      {"KILL x", true, true},
      {"close x", false, false},
      {"open  ", true, true},
      {"set -match cn=x", false, false},
      {"set -registry there", false, true},
      {"load /nonexistent.so,Function ", false, false},
      {"extern /nonexistent.so,x", false, false},
      {"application \"\" x", false, false},
      {"application  /bin/true", false, false},
      {"-lock", true, false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Execute(row.text, true), row.on_insert) << row.text;
    EXPECT_EQ(Execute(row.text, false), row.on_remove) << row.text;
  }
}

TEST(Command, ProgramsAreStartedWithTheirArguments) {
  const std::pair<const char*, const char*> rows[] = {
      {"application /bin/true  a", "'/bin/true' ' a'"},
      {"application /bin/true", "'/bin/true' ''"},
      {"APPLICATION \"/bin/no such\"   a  b", "'/bin/no such' 'a  b'"},
      {"application \"/bin/no end", "'/bin/no end' ''"},
      {"/bin/true -pin 1234", "'' '/bin/true -pin ****'"},
  };
  const TraceCapture trace;
  for (const auto& [text, started] : rows) {
    EXPECT_TRUE(Execute(text));
    EXPECT_TRUE(trace.Has("Helper - Start application: " + std::string(started))) << text;
  }
  EXPECT_FALSE(Execute("application /" + std::string(kTextSize - 1, 'p')));
  for (const std::string& line : trace.Lines()) EXPECT_EQ(line.find("1234"), line.npos) << line;
}

TEST(Command, ParallelCommandsRunOnThreadsOfTheirOwn) {
  const TraceCapture trace;
  const std::string longest = "kill " + std::string(kTextSize - 1 - 5, 'x');
  EXPECT_TRUE(Execute("parallel " + longest));
  EXPECT_FALSE(Execute("parallel " + longest + "x"));
  EXPECT_TRUE(Execute("parallel parallel close x", false));
  EXPECT_TRUE(WaitForParallelJobs(60000));
  EXPECT_EQ(trace.Count("Watch - Thread execute command ... done"), 3U);
  EXPECT_TRUE(trace.Has("Watch - Execute insert command: " + longest));
  EXPECT_TRUE(trace.Has("Watch - Execute remove command: close x"));
}

TEST(Command, SimulatedInsertNeverReachesForACard) {
  const TraceCapture trace;
  EXPECT_FALSE(Execute("set -config /nonexistent", true, 0));
  EXPECT_FALSE(Execute("extern /nonexistent.so,x", true, 0));
  EXPECT_EQ(trace.Lines().back(), "Helper - Extern command ... FAILED");
  for (const std::string& line : trace.Lines()) EXPECT_EQ(line.find("Pkcs11"), line.npos) << line;
}

TEST(TerminateList, RemovalEndsWhatTheInsertStartedForItsSlot) {
  const std::uint64_t here = StartSleeper();
  EXPECT_FALSE(EndProcess((std::uint64_t{1} << 32) + here));
  const std::uint64_t there = StartSleeper();
  AddToTerminateList(false, 1, there);
  AddToTerminateList(true, 1, here);
  EXPECT_FALSE(IsSlotProcessRunning(4));
  AddToTerminateList(true, 4, there);
  SweepTerminateList(true, 1);
  EXPECT_TRUE(IsSlotProcessRunning(1));
  SweepTerminateList(false, 1);
  EXPECT_FALSE(IsSlotProcessRunning(1));
  EXPECT_TRUE(IsSlotProcessRunning(4));

  // Any sweep drops what has ended, whatever its slot.
  EXPECT_TRUE(EndProcess(there));
  const TraceCapture trace;
  SweepTerminateList(true, 1);
  EXPECT_TRUE(trace.Has("Watch - Process " + std::to_string(there) + " exited"));
}

TEST(TerminateList, HundredEntriesAreRemembered) {
  const std::uint64_t tracked = StartSleeper();
  const std::uint64_t dropped = StartSleeper();
  for (std::size_t i = 0; i < kTerminateListSize; ++i) AddToTerminateList(true, 1, tracked);
  AddToTerminateList(true, 1, dropped);
  SweepTerminateList(false, 1);
  EXPECT_FALSE(IsSlotProcessRunning(1));
  int status = 0;
  EXPECT_EQ(CheckChild(static_cast<pid_t>(dropped), status), 0);
  EXPECT_TRUE(EndProcess(dropped));
}

}  // namespace
}  // namespace qixx::testing
