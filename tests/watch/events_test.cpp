// The commands of an event: where they come from, what they come to, what a removal ends.
#include <gtest/gtest.h>
#include <unistd.h>

#include "runtime/files.h"
#include "tests/support/environment.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"
#include "watch/command.h"
#include "watch/event_table.h"
#include "watch/terminate_list.h"

namespace qixx::testing {
namespace {

CWatchOptions Record(const std::string& rest) {
  CWatchOptions record{};
  CopyTextCut(record.rest, rest);
  CopyTextCut(record.section, "Watch");
  return record;
}

class EventTable : public ::testing::Test {
 protected:
  EventTable() { InitProductIdentity(); }

  void Configure(const std::string& insert, const std::string& remove) const {
    folder.Write("system.conf", "[Watch Insert]\n" + insert + "[Watch Remove]\n" + remove);
  }
  TemporaryFolder folder;
  ScopedVariable path{"qixconfigglobal", folder.Path("system.conf").c_str()};
};

TEST_F(EventTable, NamesAndCommandsKeepToTheirAreas) {
  char section[kEventSectionSize];
  EXPECT_TRUE(BuildEventSection(true, std::string(50, 's'), section));
  EXPECT_FALSE(BuildEventSection(true, std::string(51, 's'), section));
  const std::string text = "kill " + std::string(600, 'x');
  Configure("1=" + text + "\n", "1=" + text + "\n");
  CWatchOptions record = Record("Config");
  const TraceCapture trace;
  EXPECT_TRUE(OnInsertEvent(record, 1));
  EXPECT_TRUE(trace.Has("Watch - Execute insert command: " + text.substr(0, 511)));
  OnRemoveEvent(record, 1);
  EXPECT_TRUE(trace.Has("Watch - Execute remove command: " + text.substr(0, 255)));
}

TEST_F(EventTable, QuestionsAboutTheSectionsAlwaysEnd) {
  const std::tuple<const char*, const char*, bool, bool, bool> rows[] = {
      {"1=kill x\n2=close x\n", "1=KILL x\n2=Close x\n4=/bin/true\n", true, false, false},
      {"2=x\n", "1=\n2=kill x\n", false, false, true},
      {"", "1=config\n2=configure\n3=/bin/true\n", true, false, true},
      {"1=config\n", "1=config\n2=config x\n", true, false, false},
      {"1=kill x\n2=config\n", "1=kill x\n2=/bin/true\n", true, true, true},
  };
  for (const auto& [insert, remove, any, on_insert, on_remove] : rows) {
    SCOPED_TRACE(remove);
    Configure(insert, remove);
    EXPECT_EQ(HasEventCommands(Record("config")), any) << "the first entries alone tell";
    CConfig config;
    ASSERT_TRUE(LoadProductConfiguration(config));
    EXPECT_EQ(HasOrdinaryRemoveCommand(config, "Watch", true), on_insert);
    EXPECT_EQ(IsOrdinaryCommand(config, "Watch", "configured elsewhere"), on_remove);
  }
}

TEST(Command, KeywordsDecideTheResult) {
  const std::tuple<std::string, bool, bool> rows[] = {
      {"open  ", true, true},
      {"set -match cn=x", false, false},
      {"set -registry there", false, true},
      {"application  /bin/true", false, false},
      {"APPLICATION \"/bin/no end", true, true},
      {"application /" + std::string(255, 'p'), false, false},
      {"-lock", true, false},
      {"parallel close " + std::string(249, 'x'), true, true},
  };
  for (const auto& [text, on_insert, on_remove] : rows) {
    EXPECT_EQ(ExecuteCommand(1, true, text.c_str(), 0, true, false), on_insert) << text;
    EXPECT_EQ(ExecuteCommand(1, false, text.c_str(), 0, true, false), on_remove) << text;
  }
  EXPECT_TRUE(WaitForParallelJobs(60000));
}

TEST(TerminateList, RemovalEndsWhatTheInsertStartedForItsSlot) {
  const pid_t forked = ::fork();
  if (forked == 0) ::_exit(static_cast<int>(::sleep(120)));
  ASSERT_GT(forked, 0) << "the id of no child would mean every process";
  const auto child = static_cast<std::uint64_t>(forked);
  EXPECT_FALSE(EndProcess((std::uint64_t{1} << 32) + child));
  AddToTerminateList(false, 4, child);
  EXPECT_FALSE(IsSlotProcessRunning(4)) << "started on removal";
  for (int entry = 1; entry < 100; ++entry) AddToTerminateList(true, 1, child);
  AddToTerminateList(true, 4, child);
  AddToTerminateList(true, 7, child);
  EXPECT_FALSE(IsSlotProcessRunning(7)) << "more than a hundred entries";
  SweepTerminateList(true, 1);
  SweepTerminateList(false, 7);
  EXPECT_TRUE(IsSlotProcessRunning(1));

  // With endings alone to run a removal does not wait for anything, but ends what was started.
  const TraceCapture trace;
  CWatchOptions record = Record("close x");
  record.removeWait = 20;
  OnRemoveEvent(record, 1);
  EXPECT_FALSE(trace.Has("Watch - Execute remove command: close x"));
  EXPECT_EQ(trace.Count("Watch - Process " + std::to_string(child) + " exited"), 99U)
      << "those of other slots are dropped too";
  EXPECT_FALSE(IsSlotProcessRunning(1));
}

}  // namespace
}  // namespace qixx::testing
