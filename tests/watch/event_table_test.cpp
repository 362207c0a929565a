#include "watch/event_table.h"

#include <gtest/gtest.h>

#include "runtime/files.h"
#include "tests/support/environment.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"

namespace qixx::testing {
namespace {

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

}  // namespace
}  // namespace qixx::testing
