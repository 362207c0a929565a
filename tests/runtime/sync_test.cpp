#include "runtime/spare_sync.h"

#include <gtest/gtest.h>

#include <thread>

namespace qixx::runtime {
namespace {

TEST(SyncTest, SectionIsRecursiveAndItsOwnersAlone) {
  CCritical section;
  ExternalMutexHooks late;
  late.lock = [](void* /*mutex*/) -> std::uint32_t { return ADD_FAILURE(), kSyncOk; };
  EXPECT_EQ(SetExternalMutexHooks(&late), kSyncOk) << "not used where there is a section already";
  for (int i = 0; i < 3; ++i) EXPECT_EQ(section.Enter(), kSyncOk);
  std::thread([&section] {
    EXPECT_TRUE(section.IsHeldByOtherThread());
    EXPECT_EQ(section.Leave(), kSyncGeneralError);
  }).join();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(section.Leave(), kSyncOk);
  EXPECT_EQ(section.Leave(), kSyncGeneralError);
  CCriticalCounter counter;
  EXPECT_EQ(counter.Decrement(), std::nullopt) << "it stops at nought";
  EXPECT_EQ(counter.Increment(), 1U);
}

}  // namespace
}  // namespace qixx::runtime
