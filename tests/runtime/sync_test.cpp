#include "runtime/sync.h"

#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>

#include "tests/support/eventually.h"

namespace qixx {
namespace {

/// A function that runs on a thread of its own; waits for its end.
template <typename Function>
class OnThread {
 public:
  explicit OnThread(Function function) : function_(function), id_(ThreadCreate(&Run, this)) {}
  ~OnThread() {
    EXPECT_NE(id_, 0u);
    EXPECT_TRUE(testing::Eventually([this] { return ended_.load(); }));
  }

 private:
  static void* Run(void* argument) {
    auto* self = static_cast<OnThread*>(argument);
    ThreadDetachSelf();
    self->function_();
    self->ended_ = true;
    return nullptr;
  }
  Function function_;
  std::atomic<bool> ended_ = false;
  ThreadId id_;
};

template <typename Function>
void RunOnThread(Function function) {
  OnThread<Function> thread(function);
}

TEST(SyncTest, SectionIsRecursive) {
  CCritical section;
  EXPECT_EQ(section.Initialise(), kSyncOk) << "a second time";
  for (int i = 0; i < 3; ++i) EXPECT_EQ(section.Enter(), kSyncOk);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(section.Leave(), kSyncOk);
  EXPECT_EQ(section.Leave(), kSyncGeneralError);
  EXPECT_EQ(section.Destroy(), kSyncOk);
  EXPECT_EQ(section.Destroy(), kSyncOk);
  EXPECT_EQ(section.Enter(), kSyncGeneralError);
}

TEST(SyncTest, OnlyTheHolderLeaves) {
  CCritical section;
  ASSERT_EQ(section.Enter(), kSyncOk);
  RunOnThread([&section] {
    EXPECT_TRUE(section.IsHeldByOtherThread());
    EXPECT_EQ(section.Leave(), kSyncGeneralError);
  });
  EXPECT_FALSE(section.IsHeldByOtherThread());
  EXPECT_EQ(section.Leave(), kSyncOk) << "still held";
}

TEST(SyncTest, EnterGivesUpAfterTheTimeout) {
  static CCritical& section = *new CCritical;  // stays locked, so it is never destroyed
  ASSERT_EQ(section.Enter(), kSyncOk);
  SetLockTimeout(1);
  RunOnThread([] { EXPECT_EQ(section.Enter(), kSyncSystemFailure); });
  SetLockTimeout(0);
  EXPECT_TRUE(section.IsHeldByOtherThread()) << "a failed lock records its caller, as intended";
  EXPECT_EQ(section.Leave(), kSyncGeneralError);
}

TEST(SyncTest, SectionExcludesOtherThreads) {
  CCritical section;
  int shared = 0;
  const auto count = [&section, &shared] {
    for (int i = 0; i < 5000; ++i) {
      const CriticalScope hold(&section);
      const CriticalScope again(&section);
      const int seen = shared;
      if (i % 64 == 0) ::sched_yield();
      shared = seen + 1;
    }
  };
  {
    OnThread first(count);
    OnThread second(count);
  }
  const CriticalScope hold(&section);
  EXPECT_EQ(shared, 10000);
}

TEST(SyncTest, CounterStopsAtZero) {
  CCriticalCounter counter;
  std::uint64_t value = 99;
  EXPECT_FALSE(counter.Decrement(value));
  EXPECT_EQ(value, 0u);
  EXPECT_TRUE(counter.Increment(value));
  EXPECT_EQ(value, 1u);
  EXPECT_TRUE(counter.Decrement(value));
}

TEST(SyncTest, ThreadsAreTold) {
  const ThreadId self = ThreadSelf();
  EXPECT_NE(self, 0u);
  RunOnThread([self] { EXPECT_NE(ThreadSelf(), self); });
  ThreadKill(0, 9);
}

}  // namespace
}  // namespace qixx
