// What a service manager is told.
#include "watch/service_manager.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <string>

#include "tests/support/environment.h"
#include "tests/support/notify_listener.h"
#include "tests/support/temporary_folder.h"
#include "tests/watch/scripted.h"
#include "watch/slot_loop.h"

namespace qixx::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::StartsWith;

class ServiceManagerTest : public ::testing::Test {
 protected:
  watch::ServiceManager Manager(const std::string& name, const char* time = nullptr,
                                const char* process = nullptr) {
    const ScopedVariable socket("NOTIFY_SOCKET", name.c_str());
    const ScopedVariable interval("WATCHDOG_USEC", time);
    const ScopedVariable watched("WATCHDOG_PID", process);
    return watch::ServiceManager::TakeFromEnvironment();
  }

  const TemporaryFolder folder_;
  const std::string path_ = folder_.Path("notify");
};

TEST_F(ServiceManagerTest, IsToldOfTheRun) {
  NotifyListener listener(path_);
  Scripted machine(Polls{{4, {{4, "Reader\nMAINPID=1 "}}}, {4, {}}});
  machine.manager = Manager(path_, "40000", std::to_string(::getpid()).c_str());
  watch::CWatchOptions record = Record("kill nothing", 2, false);
  watch::RunWatch(record, machine.platform);
  EXPECT_THAT(listener.Take(),
              ElementsAre("READY=1",
                          StartsWith("STATUS=Card in slot 4 (Reader_MAINPID=1), connected since 2"),
                          "STATUS=No card", "STOPPING=1"));
  EXPECT_EQ(std::ranges::max(machine.clock.slept), 10U) << "a quarter of the time";
}

TEST_F(ServiceManagerTest, MayBeThereInManyWays) {
  for (const std::string name : {"", "notify", "vsock:2:1234"}) {
    EXPECT_FALSE(Manager(name).IsThere()) << name;
  }
  EXPECT_FALSE(Manager("/" + std::string(107, 'x')).IsThere()) << "too long";
  const std::string unnamed = "@" + path_;
  NotifyListener listener(unnamed);
  Manager(unnamed).Ready();
  EXPECT_THAT(listener.Take(), ElementsAre("READY=1"));
}

}  // namespace
}  // namespace qixx::testing
