// Memory that runs out anywhere in the life of the process: it ends in order all the same.
#include <gtest/gtest.h>

#include <utility>

#include "runtime/product.h"
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
int inserted;
int removed;
int called;

/// Without an allocation of its own.
void CountLine(const char* text, std::size_t length) {
  const std::string_view line(text, length);
  started += line.starts_with("Watch - Starting") ? 1 : 0;
  stopped += line.starts_with("Watch - Stopped") ? 1 : 0;
  inserted += line.starts_with("Watch - Execute insert command:") ? 1 : 0;
  removed += line.starts_with("Watch - Execute remove command:") ? 1 : 0;
  called += line.starts_with("Helper - Failed to load '") ? 1 : 0;
}

/// Ends the lack of memory, and tells whether there was one.
bool HasFailed() {
  return std::exchange(allocationsLeft, -1) < 0;
}

class WatchMemory : public ::testing::Test {
 protected:
  WatchMemory() {
    runtime::InitProductIdentity();
    runtime::TraceSetCallback(&CountLine);
  }
  ~WatchMemory() override { runtime::TraceSetCallback(nullptr); }

  const TemporaryFolder folder_;
  const ScopedVariable global_{"qixconfigglobal", folder_.Path("system.conf").c_str()};
};

TEST_F(WatchMemory, EndsInOrderWhereverItRunsOut) {
  folder_.Write("system.conf", "[Command]\nWatch=-sync config Watch\n[Watch Insert]\n1=close x\n");
  for (const bool isExtra : {false, true}) {
    int failedBehindStart = 0;
    bool hasFailed = true;
    for (int count = 0; hasFailed; ++count) {
      Scripted machine(Polls{{1, {{1}}}, {1, {}}});
      machine.reader.initialised = false;
      machine.clock.inSleep = [&machine] { machine.clock.stop = machine.clock.slept.size() == 2; };
      started = stopped = 0;
      allocationsLeft = count;
      const char* const line = isExtra ? "X -sync config Watch" : "";
      const int result = watch::WatchMain(0, 0, line, machine.platform);
      hasFailed = HasFailed();
      const bool hasWatched = machine.clock.slept.size() == 2;
      ASSERT_TRUE(result == 0 || isExtra) << count;
      ASSERT_TRUE(result != 0 || hasWatched || !isExtra) << count << ": it is started again";
      ASSERT_EQ(started, stopped) << count;
      ASSERT_FALSE(machine.reader.initialised) << count;
      if (hasFailed) failedBehindStart += started;
    }
    EXPECT_EQ(started, 1);
    EXPECT_GT(failedBehindStart, 20);
  }
}

TEST_F(WatchMemory, KeepsNoCommandOfARemovalFromBeingRun) {
  folder_.Write("system.conf",
                "[Watch Insert]\n1=kill nothing\n[Watch Remove]\n"
                "1=load /nonexistent/library,function arguments\n2=kill nothing\n");
  watch::CWatchOptions record = Record("config", 4);
  record.match = "a text that is too long for a string without an allocation";
  // In the round in which the card comes, then in that in which it goes.
  for (const std::size_t round : {0U, 1U}) {
    bool hasFailed = true;
    for (int count = 0; hasFailed; ++count) {
      Scripted machine(Polls{{1, {{1}}}, {1, {}}, {0, {}}});
      machine.clock.inSleep = [&] {
        if (machine.clock.slept.size() == round) allocationsLeft = count;
        if (machine.clock.slept.size() == round + 1) hasFailed = HasFailed();
      };
      machine.clock.slept.reserve(8);
      inserted = removed = called = 0;
      if (round == 0) allocationsLeft = count;
      watch::WatchSlots(record, machine.platform);
      ASSERT_TRUE(inserted == 0 || (called >= 1 && removed >= 2)) << count;
    }
    EXPECT_EQ(inserted, 1);
  }
}

}  // namespace
}  // namespace qixx::testing
