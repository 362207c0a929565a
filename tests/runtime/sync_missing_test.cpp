// A system without the threads library: the loader of this program refuses its names.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string_view>

#include "runtime/sync.h"
#include "tests/support/trace_capture.h"

namespace {
int refused = 0;
}  // namespace

extern "C" void* dlopen(const char* name, int mode) noexcept {
  if (name != nullptr && std::string_view(name).starts_with("libpthread.so")) {
    ++refused;
    return nullptr;
  }
  return reinterpret_cast<decltype(&dlopen)>(dlsym(RTLD_NEXT, "dlopen"))(name, mode);
}

namespace qixx {
namespace {

class SyncMissingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (ThreadSelf() != 0) GTEST_SKIP() << "a thread-sanitizer build has the library built in";
  }
};

TEST_F(SyncMissingTest, RunsUnlockedAndWithoutThreads) {
  const testing::TraceCapture trace;
  CCritical section;
  EXPECT_EQ(section.Enter(), kSyncGeneralError);
  EXPECT_EQ(section.Leave(), kSyncGeneralError);
  EXPECT_EQ(section.Destroy(), kSyncGeneralError);
  EXPECT_EQ(section.Initialise(), kSyncSystemFailure);
  EXPECT_EQ(ThreadCreate([](void* argument) { return argument; }, nullptr), 0u);
  ThreadKill(1, 0);
  ThreadDetachSelf();
  EXPECT_THAT(trace.Lines(),
              ::testing::ElementsAre("Thread - Failed to load create thread from posix library",
                                     "Thread - Failed to load kill thread from posix library"));
  EXPECT_EQ(refused, 2) << "the exact name, then the versioned one, and never again";
}

int held = 0;
std::uint32_t Make(void** mutex) {
  *mutex = &held;
  return kSyncOk;
}
std::uint32_t Free(void* /*mutex*/) {
  return 90;
}
std::uint32_t Lock(void* mutex) {
  return ++*static_cast<int*>(mutex) == 1 ? kSyncOk : 91;
}
std::uint32_t Unlock(void* mutex) {
  return --*static_cast<int*>(mutex) == 0 ? kSyncOk : 92;
}

TEST_F(SyncMissingTest, MutexesOfTheCallerServeInstead) {
  TraceSetFile(nullptr);  // frees the trace lock, which is a live section too
  ExternalMutexHooks hooks = {&Make, &Free, &Lock, nullptr};
  EXPECT_EQ(SetExternalMutexHooks(&hooks), kSyncBadArguments);
  hooks.unlock = &Unlock;
  {
    const CCritical live;
    EXPECT_EQ(SetExternalMutexHooks(&hooks), kSyncOk) << "refused all the same";
    EXPECT_EQ(CCritical().Enter(), kSyncGeneralError);
  }
  EXPECT_EQ(SetExternalMutexHooks(&hooks), kSyncOk);
  CCritical section;
  EXPECT_EQ(section.Enter(), kSyncOk);
  EXPECT_EQ(section.Enter(), kSyncOk);
  EXPECT_EQ(held, 1) << "recursion does not reach the hooks";
  EXPECT_EQ(section.Leave(), kSyncOk);
  EXPECT_EQ(section.Leave(), kSyncOk);
  EXPECT_EQ(held, 0);
  EXPECT_EQ(section.Destroy(), 90u);
}

}  // namespace
}  // namespace qixx
