// Memory that runs out anywhere in the life of the process: it ends in order all the same.
#include <gtest/gtest.h>

#include <cstring>

#include "runtime/product.h"
#include "runtime/spare_trace.h"
#include "tests/support/environment.h"
#include "tests/support/failing_memory.h"
#include "tests/support/notify_listener.h"
#include "tests/support/temporary_folder.h"
#include "tests/watch/scripted.h"
#include "watch/event_handlers.h"
#include "watch/slot_loop.h"
#include "watch/watch_main.h"

namespace qixx::testing {
namespace {

int started;
int stopped;
int removed;
int called;

/// Without an allocation of its own.
void CountLine(const char* line, std::size_t /*length*/) {
  started += std::strncmp(line, "Watch - Starting", 16) == 0 ? 1 : 0;
  stopped += std::strncmp(line, "Watch - Stopped", 15) == 0 ? 1 : 0;
  removed += std::strncmp(line, "Watch - Execute remove command:", 31) == 0 ? 1 : 0;
  called += std::strncmp(line, "Helper - Failed to load '", 25) == 0 ? 1 : 0;
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

TEST(WatchMemory, KeepsNoCommandOfARemovalFromBeingRun) {
  const TemporaryFolder folder;
  const std::string path = folder.Write(
      "system.conf",
      "[Watch Remove]\n1=load /nonexistent/library,function arguments\n2=kill nothing\n");
  const ScopedVariable global("qixconfigglobal", path.c_str());
  runtime::InitProductIdentity();
  Scripted machine;
  watch::CWatchOptions record;
  record.rest = "config";
  record.section = "Watch";
  runtime::TraceSetCallback(&CountLine);
  bool hasFailed = true;
  for (int count = 0; hasFailed; ++count) {
    removed = called = 0;
    allocationsLeft = count;
    watch::OwedRemoval owed = watch::OnRemoveEvent(record, 1, machine.platform);
    hasFailed = allocationsLeft < 0;
    allocationsLeft = -1;
    if (owed.isUnread || owed.isWhole) watch::OnRemoveEvent(record, 1, machine.platform);
    watch::RunOwedCommands(record, 1, machine.platform, owed.commands);
    ASSERT_TRUE(owed.commands.empty()) << count;
    ASSERT_GE(called, 1) << count;
    ASSERT_GE(removed, 2) << count;
  }
  runtime::TraceSetCallback(nullptr);
}

TEST(WatchMemory, IsNotNeededForASignOfLife) {
  const TemporaryFolder folder;
  NotifyListener listener(folder.Path("notify"));
  const ScopedVariable socket("NOTIFY_SOCKET", folder.Path("notify").c_str());
  watch::ServiceManager manager = watch::ServiceManager::TakeFromEnvironment();
  // The system's queue takes a few thousand at most.
  for (int sent = 0; sent < 10'000; ++sent) manager.Ready();
  const std::string line(100, 'x');
  manager.Status(line);
  listener.Take();
  allocationsLeft = 0;
  EXPECT_NO_THROW(manager.Alive());
  allocationsLeft = -1;
  EXPECT_EQ(listener.Take().back(), "STATUS=" + line);
}

}  // namespace
}  // namespace qixx::testing
