#include "watch/stop.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <thread>

namespace qixx::testing {
namespace {

// Each check runs in a process of its own, which exits with what it found.

[[noreturn]] void SleepOnOneThreadAndRaiseOnAnother(int signal) {
  InstallStopHandlers();
  std::thread sleeper([] { ::_exit(SleepUnlessStopped(600'000) ? 100 : StopSignal()); });
  ::raise(signal);
  sleeper.join();
  ::_exit(101);
}

TEST(Stop, SignalEndsASleepOnAnyThread) {
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
    EXPECT_EXIT(SleepOnOneThreadAndRaiseOnAnother(signal), ::testing::ExitedWithCode(signal), "");
  }
}

[[noreturn]] void RaiseIgnored() {
  ::signal(SIGHUP, SIG_IGN);
  InstallStopHandlers();
  ::raise(SIGHUP);
  ::_exit(SleepUnlessStopped(1) && !StopRequested() ? 0 : 1);
}

[[noreturn]] void RaiseTwo() {
  InstallStopHandlers();
  ::raise(SIGTERM);
  ::raise(SIGINT);
  ::_exit(0);
}

TEST(Stop, IgnoredHangupStaysSoAndASecondSignalActsByDefault) {
  EXPECT_EXIT(RaiseIgnored(), ::testing::ExitedWithCode(0), "");
  EXPECT_EXIT(RaiseTwo(), ::testing::KilledBySignal(SIGINT), "");
}

}  // namespace
}  // namespace qixx::testing
