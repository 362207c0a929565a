// A system without the threads library: the loader of this program refuses its names.

#include <dlfcn.h>
#include <gmock/gmock.h>

#include <cstdlib>
#include <string_view>

#include "runtime/spare_sync.h"
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

int hookCalls = 0;

/// In a program without any section so far; returns the number of the first step that failed.
int UseExternalMutexes() {
  ExternalMutexHooks hooks;
  hooks.lock = [](void* /*mutex*/) -> std::uint32_t { return ++hookCalls, kSyncOk; };
  if (SetExternalMutexHooks(&hooks) != kSyncBadArguments) return 1;
  hooks.create = [](void** mutex) -> std::uint32_t { return *mutex = &hookCalls, kSyncOk; };
  hooks.destroy = hooks.unlock = hooks.lock;
  if (SetExternalMutexHooks(&hooks) != kSyncOk) return 2;
  {
    CCritical section;
    if (section.Enter() != kSyncOk || section.Leave() != kSyncOk) return 3;
  }
  return hookCalls == 3 ? 0 : 4;
}

TEST(ExternalMutexes, TakeThePlaceOfThePlatforms) {
  EXPECT_EXIT(std::_Exit(UseExternalMutexes()), ::testing::ExitedWithCode(0), "");
}

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
