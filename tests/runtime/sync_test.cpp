#include "runtime/spare_sync.h"

#include <gtest/gtest.h>

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
}

}  // namespace
}  // namespace qixx::runtime
