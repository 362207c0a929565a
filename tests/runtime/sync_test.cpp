#include "runtime/sync.h"

#include <gtest/gtest.h>
#include <sched.h>

#include <thread>

namespace qixx {
namespace {

TEST(SyncTest, SectionIsRecursive) {
  CCritical section;
  EXPECT_EQ(section.Initialise(), kSyncOk) << "a second time";
  for (int i = 0; i < 3; ++i) EXPECT_EQ(section.Enter(), kSyncOk);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(section.Leave(), kSyncOk);
  EXPECT_EQ(section.Leave(), kSyncGeneralError);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(section.Destroy(), kSyncOk);
  EXPECT_EQ(section.Enter(), kSyncGeneralError);
}

TEST(SyncTest, OtherThreadsWaitAndCannotLeave) {
  CCritical section;
  int shared = 0;
  const auto count = [&section, &shared] {
    for (int i = 0; i < 5000; ++i) {
      const CriticalScope hold(&section);
      const int seen = shared;
      if (i % 64 == 0) ::sched_yield();
      shared = seen + 1;
    }
  };
  std::thread other(count);
  count();
  other.join();
  EXPECT_EQ(shared, 10000);

  static CCritical& locked = *new CCritical;  // stays so, and is never destroyed
  EXPECT_EQ(locked.Enter(), kSyncOk);
  SetLockTimeout(1);
  std::thread([] {
    EXPECT_EQ(locked.Leave(), kSyncGeneralError);
    EXPECT_EQ(locked.Enter(), kSyncSystemFailure);
  }).join();
  SetLockTimeout(0);
  EXPECT_TRUE(locked.IsHeldByOtherThread()) << "a failed lock records its caller, as intended";
}

}  // namespace
}  // namespace qixx
