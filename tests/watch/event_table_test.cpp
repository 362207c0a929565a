#include "watch/event_table.h"

#include <gtest/gtest.h>

#include "runtime/files.h"
#include "tests/support/environment.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"

namespace qixx::testing {
namespace {

using Lines = std::vector<std::string>;

class EventTable : public ::testing::Test {
 protected:
  EventTable() { InitProductIdentity(); }

  void Configure(const std::string& insert, const std::string& remove) const {
    folder.Write("system.conf", "[Watch Insert]\n" + insert + "[Watch Remove]\n" + remove);
  }
  static CWatchOptions Record(const std::string& rest) {
    CWatchOptions record{};
    CopyTextCut(record.rest, rest);
    CopyTextCut(record.section, "Watch");
    return record;
  }
  /// The command texts that an insert and a removal run, each behind its event's kind.
  Lines Run(CWatchOptions record) const {
    const TraceCapture trace;
    OnInsertEvent(record, 1);
    OnRemoveEvent(record, 1);
    Lines commands;
    for (const std::string& line : trace.Lines()) {
      constexpr std::string_view kHead = "Watch - Execute ";
      if (line.starts_with(kHead)) commands.push_back(line.substr(kHead.size()));
    }
    EXPECT_EQ(trace.Lines().back(), "Watch - Remove event ... done");
    return commands;
  }

  TemporaryFolder folder;
  ScopedVariable path{"qixconfigglobal", folder.Path("system.conf").c_str()};
};

TEST_F(EventTable, SectionNamesAreBuiltInTheirAreas) {
  const std::string longest(50, 's');
  const std::pair<std::string, std::string> rows[] = {{"Watch", "Watch Insert"},
                                                      {"watch", "Watch watch Insert"},
                                                      {longest, "Watch " + longest + " Insert"},
                                                      {longest + "s", ""}};
  for (const auto& [name, expected] : rows) {
    const TraceCapture trace;
    char section[kEventSectionSize];
    EXPECT_EQ(BuildEventSection(true, name, section), !expected.empty());
    EXPECT_EQ(section, expected);
    EXPECT_TRUE(trace.Has("Watch - Configuration: '" + expected + "'"));
  }
}

TEST_F(EventTable, OnlyTheFirstEntriesTellWhetherThereIsAnythingToRun) {
  EXPECT_FALSE(HasEventCommands(Record("config")));
  EXPECT_TRUE(HasEventCommands(Record("x")));
  EXPECT_FALSE(HasEventCommands(Record("")));
  const struct {
    const char* insert;
    const char* remove;
    bool expected;
  } rows[] = {{"1=x\n", "", true}, {"1=\n2=x\n", "1=x\n", true}, {"1=\n2=x\n", "2=x\n", false}};
  for (const auto& row : rows) {
    Configure(row.insert, row.remove);
    EXPECT_EQ(HasEventCommands(Record("CONFIG")), row.expected) << row.insert;
  }
}

TEST_F(EventTable, ListsEndAtAGapAndAnInsertAlsoAtAFailure) {
  const std::string text = "kill " + std::string(600, 'x');
  const std::string list = "1=\n2=" + text + "\n3=close b\n4=kill c\n6=kill d\n";
  Configure(list, list);
  EXPECT_EQ(Run(Record("config")), (Lines{"insert command: " + text.substr(0, kInsertEntrySize - 1),
                                          "insert command: close b",
                                          "remove command: " + text.substr(0, kRemoveEntrySize - 1),
                                          "remove command: close b", "remove command: kill c"}));
}

TEST_F(EventTable, DirectCommandRunsAsItsHeadSays) {
  EXPECT_EQ(Run(Record("kill x")), (Lines{"insert command: kill x", "remove command: kill x"}));
  EXPECT_EQ(Run(Record("~kill x")), Lines{"insert command: kill x"});
  EXPECT_EQ(Run(Record("-R x")), Lines{"remove command: -R x"});
}

TEST_F(EventTable, RemoveScanLooksForAnOrdinaryCommandAndAlwaysEnds) {
  const struct {
    const char* name;
    const char* insert;
    const char* remove;
    bool on_insert;
    bool on_remove;
  } rows[] = {
      {"only endings", "1=kill x\n2=close x\n", "1=KILL x\n2=Close x\n", false, false},
      {"behind a gap", "", "1=kill x\n3=/bin/true\n", false, false},
      {"an empty entry", "", "1=\n", false, true},
      {"config in front", "", "1=config\n2=configure\n3=/bin/true\n", false, true},
      {"only config", "1=config\n", "1=config\n2=config x\n", false, false},
      {"insert defers", "1=kill x\n2=config\n", "1=kill x\n2=/bin/true\n", true, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Configure(row.insert, row.remove);
    CConfig config;
    ASSERT_TRUE(LoadProductConfiguration(config));
    EXPECT_EQ(HasOrdinaryRemoveCommand(config, "Watch", true), row.on_insert);
    EXPECT_EQ(IsOrdinaryCommand(config, "Watch", "configured elsewhere"), row.on_remove);
  }
}

TEST_F(EventTable, WaitEndsEarlyForAnEventThatNoLongerHolds) {
  Configure("1=kill x\n", "1=kill x\n");
  CWatchOptions record = Record("config");
  record.insertWait = record.removeWait = UINT64_MAX;
  CopyTextCut(record.match, "cn=nobody");
  EXPECT_EQ(Run(record), Lines{});
  record.terminate = 1;
  EXPECT_EQ(Run(record), Lines{});
  record.removeWait = 1;
  Configure("", "1=kill x\n2=-l\n");
  EXPECT_EQ(Run(record), (Lines{"remove command: kill x", "remove command: -l"}));
}

}  // namespace
}  // namespace qixx::testing
