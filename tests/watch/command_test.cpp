#include "watch/command.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <stdexcept>

#include "tests/support/trace_capture.h"
#include "watch/event_table.h"
#include "watch/terminate_list.h"

namespace qixx::testing {
namespace {

bool Execute(const std::string& text, bool insert = true) {
  return ExecuteCommand(1, insert, text.c_str(), 0, true, true);
}

/// A child that sleeps until it is ended.
std::uint64_t StartSleeper() {
  const pid_t child = ::fork();
  if (child < 0) throw std::runtime_error("no child");  // its id would mean every process
  if (child == 0) {
    ::alarm(120);
    ::pause();
    ::_exit(0);
  }
  return static_cast<std::uint64_t>(child);
}

TEST(Command, KeywordsDecideTheResult) {
  const std::tuple<std::string, bool, bool> rows[] = {
      {"KILL x", true, true},
      {"open  ", true, true},
      {"set -match cn=x", false, false},
      {"set -registry there", false, true},
      {"application  /bin/true", false, false},
      {"-lock", true, false},
      {"parallel close " + std::string(249, 'x'), true, true},
  };
  for (const auto& [text, on_insert, on_remove] : rows) {
    EXPECT_EQ(Execute(text, true), on_insert) << text;
    EXPECT_EQ(Execute(text, false), on_remove) << text;
  }
  EXPECT_TRUE(WaitForParallelJobs(60000));
}

TEST(Command, ApplicationsAreStartedWithTheirArguments) {
  const TraceCapture trace;
  EXPECT_TRUE(Execute("application /bin/true  a"));
  EXPECT_TRUE(trace.Has("Helper - Start application: '/bin/true' ' a'"));
  EXPECT_TRUE(Execute("APPLICATION \"/bin/no end"));
  EXPECT_TRUE(trace.Has("Helper - Start application: '/bin/no end' ''"));
  EXPECT_FALSE(Execute("application /" + std::string(255, 'p')));
}

TEST(TerminateList, RemovalEndsWhatTheInsertStartedForItsSlot) {
  const std::uint64_t here = StartSleeper();
  EXPECT_FALSE(EndProcess((std::uint64_t{1} << 32) + here));
  const std::uint64_t there = StartSleeper();
  AddToTerminateList(false, 4, there);
  EXPECT_FALSE(IsSlotProcessRunning(4));
  for (int entry = 1; entry < 100; ++entry) AddToTerminateList(true, 1, here);
  AddToTerminateList(true, 4, there);
  AddToTerminateList(true, 7, there);
  EXPECT_FALSE(IsSlotProcessRunning(7)) << "more than a hundred entries";
  SweepTerminateList(true, 1);
  EXPECT_TRUE(IsSlotProcessRunning(1));

  // The wait ends at once where there is no ordinary command, nor a process, to wait for.
  const TraceCapture trace;
  CWatchOptions record{};
  CopyTextCut(record.rest, "close x");
  record.removeWait = 20;
  OnRemoveEvent(record, 1);
  record.terminate = 1;
  OnRemoveEvent(record, 1);
  EXPECT_FALSE(trace.Has("Watch - Execute remove command: close x"));
  EXPECT_FALSE(IsSlotProcessRunning(1));
  EXPECT_TRUE(IsSlotProcessRunning(4));

  // Any sweep drops what has ended, whatever its slot.
  EXPECT_TRUE(EndProcess(there));
  SweepTerminateList(true, 1);
  EXPECT_TRUE(trace.Has("Watch - Process " + std::to_string(there) + " exited"));
}

}  // namespace
}  // namespace qixx::testing
