#include "watch/stop.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <thread>

namespace qixx::testing {
namespace {

[[noreturn]] void TakeSignals() {
  ::signal(SIGHUP, SIG_IGN);
  ::signal(SIGINT, SIG_DFL);
  InstallStopHandlers();
  ::raise(SIGHUP);
  bool slept = true;
  std::thread sleeper([&slept] { slept = SleepUnlessStopped(600'000); });
  // Long enough for the other thread to fall asleep; were it not, the test would only prove less.
  if (!SleepUnlessStopped(100)) ::_exit(1);
  ::raise(SIGTERM);
  sleeper.join();
  if (slept) ::_exit(2);
  ::raise(SIGINT);
  ::_exit(3);
}

TEST(Stop, FirstSignalEndsASleepOnAnotherThreadAndTheSecondTheProcess) {
  EXPECT_EXIT(TakeSignals(), ::testing::KilledBySignal(SIGINT), "");
}

}  // namespace
}  // namespace qixx::testing
