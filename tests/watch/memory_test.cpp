// Memory that runs out anywhere in the life of the process: it ends in order all the same.
#include <gtest/gtest.h>

#include <cstring>

#include "runtime/spare_trace.h"
#include "tests/support/environment.h"
#include "tests/support/failing_memory.h"
#include "tests/support/temporary_folder.h"
#include "tests/watch/scripted.h"
#include "watch/slot_loop.h"
#include "watch/watch_main.h"

namespace qixx::testing {
namespace {

int started;
int stopped;
int removed;

/// Without an allocation of its own.
void CountLine(const char* line, std::size_t /*length*/) {
  started += std::strncmp(line, "Watch - Starting", 16) == 0 ? 1 : 0;
  stopped += std::strncmp(line, "Watch - Stopped", 15) == 0 ? 1 : 0;
  removed += std::strncmp(line, "Watch - Execute remove command:", 31) == 0 ? 1 : 0;
}

TEST(WatchMemory, EndsInOrderWhereverItRunsOut) {
  const TemporaryFolder folder;
  const std::string path = folder.Write(
      "system.conf", "[Command]\nWatch=-sync config Watch\n[Watch Insert]\n1=close x\n");
  const ScopedVariable global("qixconfigglobal", path.c_str());
  runtime::TraceSetCallback(&CountLine);
  int failedBehindStart = 0;
  bool hasFailed = true;
  for (int count = 0; hasFailed; ++count) {
    Scripted machine(std::vector<Poll>{{1, {{1}}}, {1, {}}});
    machine.reader.initialised = false;
    machine.clock.inSleep = [&machine] { machine.clock.stop = machine.clock.slept.size() == 2; };
    started = stopped = 0;
    allocationsLeft = count;
    const int result = watch::WatchMain(0, 0, "", machine.platform);
    hasFailed = allocationsLeft < 0;
    allocationsLeft = -1;
    ASSERT_EQ(result, 0) << count;
    ASSERT_EQ(started, stopped) << count;
    ASSERT_FALSE(machine.reader.initialised) << count;
    if (hasFailed) failedBehindStart += started;
  }
  EXPECT_EQ(started, 1);
  EXPECT_GT(failedBehindStart, 20);
  runtime::TraceSetCallback(nullptr);
}

TEST(WatchMemory, KeepsNoRemovalFromBeingRun) {
  watch::CWatchOptions record;
  record.rest = "kill nothing";
  record.section = "Watch";
  record.match = "a text that is too long for a string without an allocation";
  record.sync = true;
  record.roundLimit = 4;
  runtime::TraceSetCallback(&CountLine);
  bool hasFailed = true;
  for (int count = 0; hasFailed; ++count) {
    Scripted machine(std::vector<Poll>{{1, {{1}}}, {1, {}}, {0, {}}});
    // From the end of the first round to that of the second, in which the card goes.
    machine.clock.inSleep = [&] {
      if (machine.clock.slept.size() == 1) allocationsLeft = count;
      if (machine.clock.slept.size() == 2) {
        hasFailed = allocationsLeft < 0;
        allocationsLeft = -1;
      }
    };
    machine.clock.slept.reserve(8);
    removed = 0;
    watch::WatchSlots(record, machine.platform);
    ASSERT_EQ(removed, 1) << count;
  }
  runtime::TraceSetCallback(nullptr);
}

}  // namespace
}  // namespace qixx::testing
