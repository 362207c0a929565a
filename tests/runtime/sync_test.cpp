#include "runtime/spare_sync.h"

#include <gtest/gtest.h>
#include <sched.h>

#include <thread>

namespace qixx::runtime {
namespace {

TEST(SyncTest, SectionIsRecursiveAndItsOwnersAlone) {
  CCritical section;
  for (int i = 0; i < 3; ++i) EXPECT_EQ(section.Enter(), kSyncOk);
  std::thread([&section] {
    EXPECT_TRUE(section.IsHeldByOtherThread());
    EXPECT_EQ(section.Leave(), kSyncGeneralError);
  }).join();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(section.Leave(), kSyncOk);
  EXPECT_EQ(section.Leave(), kSyncGeneralError);

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
}

}  // namespace
}  // namespace qixx::runtime
