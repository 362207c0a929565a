// What a service manager is told.
#include "watch/service_manager.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <string>
#include <thread>

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
  std::vector<std::string> told;
  std::size_t signs = 0;
  const auto listen = [&] {
    for (const std::string& message : listener.Take()) told.push_back(message);
    signs += listener.Signs();
  };
  machine.clock.inSleep = [&] {
    ::usleep(machine.clock.slept.back() * 1000);
    listen();
  };
  watch::CWatchOptions record = Record("kill nothing", 2, false);
  watch::RunWatch(record, machine.platform);
  listen();
  EXPECT_THAT(told,
              ElementsAre("READY=1",
                          StartsWith("STATUS=Card in slot 4 (Reader_MAINPID=1), connected since 2"),
                          "STATUS=No card", "STOPPING=1"));
  EXPECT_GE(signs, 20U) << "of a second, at least one in 40 ms";
  EXPECT_LE(*std::ranges::max_element(machine.clock.slept), 10U);
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

TEST_F(ServiceManagerTest, BelievesTheWatchsThreadAlone) {
  NotifyListener listener(path_);
  watch::ServiceManager manager = Manager(path_, "2000");
  ::usleep(3000);
  std::thread([&manager] { manager.Alive(); }).join();
  listener.Take();
  EXPECT_EQ(listener.Signs(), 0U);
  manager.Alive();
  listener.Take();
  EXPECT_EQ(listener.Signs(), 1U);
}

}  // namespace
}  // namespace qixx::testing
