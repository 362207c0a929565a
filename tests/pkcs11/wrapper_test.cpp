#include "pkcs11/wrapper.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include "runtime/library_call.h"
#include "tests/support/environment.h"
#include "tests/support/fake_card.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"

namespace qixx::testing {
namespace {

class WrapperTest : public ::testing::Test {
 protected:
  WrapperTest() { EXPECT_TRUE(wrapper_.SetLibraryPath(QIXX_SOFTCARD_SUITE)); }
  ~WrapperTest() override { wrapper_.Release(); }

  const TemporaryFolder folder_;
  const ScopedVariable readers_{"QIXX_SOFTCARD", folder_.Path().c_str()};
  FakeCard card_;
  const FakeModule plain_{QIXX_FAKE_PLAIN, CKR_OK, &card_.List()};
  const TraceCapture trace_;
  pkcs11::CWrapperPkcs11 wrapper_;
};

TEST_F(WrapperTest, SharesOneInitialisation) {
  folder_.Write("module", "log=1\n");
  EXPECT_EQ(wrapper_.Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(wrapper_.Initialize(nullptr), CKR_OK);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(wrapper_.Finalize(nullptr), CKR_OK);
  folder_.Write("module", "log=1\nfail=C_Initialize:0x191\n");
  EXPECT_EQ(wrapper_.Initialize(nullptr), CKR_OK) << "somebody else was first";
  EXPECT_EQ(wrapper_.Finalize(nullptr), CKR_OK);
  EXPECT_EQ(folder_.Read("calls"), "C_GetFunctionList\nC_Initialize\nC_Finalize\nC_Initialize\n");
}

TEST_F(WrapperTest, RefusesLibrariesWithoutList) {
  const char* const rows[][3] = {{"no C_GetFunctionList", "libm.so.6", ""},
                                 {"null list", QIXX_SOFTCARD_PARTIAL, "omit=C_GetFunctionList\n"}};
  for (const auto& [name, path, faults] : rows) {
    folder_.Write("module", faults);
    EXPECT_TRUE(wrapper_.SetLibraryPath(path));
    EXPECT_EQ(wrapper_.Initialize(nullptr), CKR_GENERAL_ERROR) << name;
  }
}

TEST_F(WrapperTest, CallsNoFunctionThatIsMissing) {
  EXPECT_TRUE(wrapper_.Load(QIXX_FAKE_PLAIN));
  card_.List() = {};
  EXPECT_EQ(wrapper_.GetInfo(nullptr), CKR_FUNCTION_NOT_SUPPORTED);
  EXPECT_EQ(wrapper_.WaitForSlotEvent(CKF_DONT_BLOCK, nullptr, nullptr), CKR_GENERAL_ERROR);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(wrapper_.Initialize(nullptr), CKR_GENERAL_ERROR);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "qixxwatch: library " QIXX_FAKE_PLAIN " does not start: it has no C_Initialize\n");
}

TEST_F(WrapperTest, LeavesWhatIsBehindAStandardListAlone) {
  const FakeModule dependent{QIXX_FAKE_DEPENDENT, CKR_OK, &card_.List()};
  std::memset(&card_.memory.extension, 0xA5, sizeof(pkcs11::ExtensionSlots));
  const pkcs11::ExtensionSlots before = card_.memory.extension;
  // The second one needs a library that has some of them.
  for (const char* const path : {QIXX_FAKE_PLAIN, QIXX_FAKE_DEPENDENT}) {
    EXPECT_TRUE(wrapper_.Load(path));
    EXPECT_EQ(std::memcmp(&before, &card_.memory.extension, sizeof(before)), 0);
    EXPECT_EQ(wrapper_.EventDescriptor(), -1);
    wrapper_.Release();
  }
}

TEST_F(WrapperTest, SurvivesFunctionsThatThrowOrEndTheThread) {
  EXPECT_TRUE(wrapper_.Load(QIXX_HOSTILE_MODULE));
  const runtime::SharedLibrary module = runtime::OpenLibrary(QIXX_HOSTILE_MODULE);  // it stays
  const auto choose = module.FindSymbol<void (*)(const char*, int, bool)>("HostileModuleChoose");
  using Wrapper = pkcs11::CWrapperPkcs11;
  const std::pair<const char*, bool (*)(Wrapper&)> rows[] = {
      {"C_Finalize",
       [](auto& own) { return own.Initialize({}) == CKR_OK && own.Finalize({}) == CKR_OK; }},
      {"C_Initialize", [](Wrapper& own) { return own.Initialize(nullptr) == CKR_OK; }},
      {"C_WaitForSlotEvent", [](auto& own) { return own.WaitForSlotEvent(1, {}, {}) == CKR_OK; }},
      {"QixEventDescriptor", [](Wrapper& own) { return own.EventDescriptor() == 7; }},
      {"QixSlotCounts", [](Wrapper& own) { return own.SlotCounts(1).value_or(false); }},
      {"QixPassOver", [](Wrapper& own) { return own.PassOver(1); }},
      {"QixModuleFault", [](Wrapper& own) { return !own.ModuleFault().empty(); }},
      {"C_GetFunctionList",
       [](Wrapper& own) { return own.Release(), own.Load(QIXX_HOSTILE_MODULE); }},
  };
  for (const auto& [name, call] : rows) {
    for (const std::size_t time : {1U, 2U}) {
      choose(name, 1, time == 2);
      EXPECT_FALSE(call(wrapper_)) << name;
      EXPECT_EQ(trace_.Count(std::string("WrapperPkcs11 - Exception in ") + name), time) << name;
    }
    EXPECT_TRUE(call(wrapper_)) << name;
  }
}

TEST(ThrowingLibrary, IsNotLoaded) {
  const auto isRefused = [] {
    runtime::ContainTermination();
    pkcs11::CWrapperPkcs11 wrapper;
    return !wrapper.Load(QIXX_THROWING_CONSTRUCTOR) && runtime::IsLoaderBroken() &&
           !wrapper.Load(QIXX_THROWING_CONSTRUCTOR) && !wrapper.Load(QIXX_FAKE_PLAIN);
  };
  // In a process of its own, whose loader is of no more use.
  EXPECT_EXIT(::_exit(isRefused() ? 0 : 1), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace qixx::testing
