// A system without the threads library: the loader of this program refuses its names.

#include <dlfcn.h>
#include <gmock/gmock.h>

#include <string_view>

#include "runtime/sync.h"
#include "tests/support/trace_capture.h"

static int refused = 0;

extern "C" void* dlopen(const char* name, int mode) noexcept {
  if (name != nullptr && std::string_view(name).starts_with("libpthread.so")) {
    ++refused;
    return nullptr;
  }
  return reinterpret_cast<decltype(&dlopen)>(dlsym(RTLD_NEXT, "dlopen"))(name, mode);
}

namespace qixx::runtime {
namespace {

TEST(SyncMissingTest, RunsUnlocked) {
  if (ThreadSelf() != 0) GTEST_SKIP() << "a thread-sanitizer build has the library built in";
  const testing::TraceCapture trace;
  CCritical section;
  EXPECT_EQ(section.Enter(), kSyncGeneralError);
  EXPECT_EQ(section.Destroy(), kSyncGeneralError);
  EXPECT_EQ(section.Initialise(), kSyncSystemFailure);
  EXPECT_EQ(ThreadCreate([](void* argument) { return argument; }, nullptr), 0u);
  EXPECT_EQ(refused, 2) << "the exact name, then the versioned one, and never again";

  EXPECT_EQ(SetExternalMutexHooks(nullptr), kSyncOk) << "refused all the same";
  EXPECT_THAT(trace.Lines(),
              ::testing::ElementsAre("Thread - Failed to load create thread from posix library",
                                     "Critical - INTERNAL ERROR, external pointers disabled"));
}

}  // namespace
}  // namespace qixx::runtime
