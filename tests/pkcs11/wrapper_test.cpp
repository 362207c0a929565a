#include "pkcs11/wrapper.h"

#include <dlfcn.h>
#include <gmock/gmock.h>

#include <cstring>

#include "tests/support/environment.h"
#include "tests/support/fake_card.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"

namespace qixx::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

constexpr const char* kSuite = QIXX_SOFTCARD_SUITE;      // with all extension functions
constexpr const char* kPartial = QIXX_SOFTCARD_PARTIAL;  // without those for variables
constexpr const char* kExtensions[] = {
    "Reinitialize",      "ResetToken",      "UnlockPIN",        "SetTraceFile", "SetPINEx",
    "GenerateChallenge", "SetTokenTimeout", "SetTraceCallback", "SetVariable",  "GetVariable"};

std::string Missing(const std::string& name) {
  return "WrapperPkcs11 - Function C_" + name + " missing";
}
std::string Loaded(const std::string& path) {
  return "WrapperPkcs11 - Loaded extended '" + path + "'";
}
std::string Count(int count, const std::string& when) {
  return "WrapperPkcs11 - Initialize count " + std::to_string(count) + " at " + when;
}

class WrapperTest : public ::testing::Test {
 protected:
  WrapperTest() { EXPECT_TRUE(wrapper_.SetLibraryPath(kSuite)); }
  ~WrapperTest() override { wrapper_.Release(); }

  const TemporaryFolder folder_;
  const ScopedVariable readers_{"QIXX_SOFTCARD", folder_.Path().c_str()};
  FakeCard card_;
  const FakeModule plain_{QIXX_FAKE_PLAIN, CKR_OK, &card_.List()};
  const TraceCapture trace_;
  CWrapperPkcs11 wrapper_;
};

TEST_F(WrapperTest, SharesOneInitialisation) {
  folder_.Write("module", "log=1\n");
  EXPECT_EQ(wrapper_.Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
  EXPECT_EQ(wrapper_.Initialize(nullptr), CKR_OK);
  EXPECT_EQ(wrapper_.Initialize(nullptr), CKR_OK);
  EXPECT_EQ(wrapper_.Finalize(nullptr), CKR_OK);
  EXPECT_EQ(wrapper_.Finalize(nullptr), CKR_OK);
  EXPECT_EQ(folder_.Read("calls"), "C_GetFunctionList\nC_Initialize\nC_Finalize\n");
  EXPECT_THAT(trace_.Lines(),
              ElementsAre(Count(0, "finalize"), Loaded(kSuite), Count(1, "initialize"),
                          Count(2, "initialize"), Count(1, "finalize"), Count(0, "finalize")));
}

TEST_F(WrapperTest, LeavesForeignInitialisationAlone) {
  folder_.Write("module", "log=1\nfail=C_Initialize:0x191\n");
  EXPECT_EQ(wrapper_.Initialize(nullptr), CKR_OK);
  EXPECT_EQ(wrapper_.Finalize(nullptr), CKR_OK);
  EXPECT_EQ(folder_.Read("calls"), "C_GetFunctionList\nC_Initialize\n");
  folder_.Write("module", "fail=C_Initialize:0x30\n");
  EXPECT_EQ(wrapper_.Initialize(nullptr), CKR_DEVICE_ERROR);
  EXPECT_EQ(trace_.Lines().back(), Count(0, "initialize"));
}

TEST_F(WrapperTest, RefusesLibrariesWithoutList) {
  const char* const rows[][3] = {
      {"no such file", "/nowhere/libnone.so", ""},
      {"no C_GetFunctionList", "libm.so.6", ""},
      {"failing call", kPartial, "fail=C_GetFunctionList:2\n"},
      {"null list", kPartial, "omit=C_GetFunctionList\n"},
  };
  for (const auto& [name, path, faults] : rows) {
    SCOPED_TRACE(name);
    folder_.Write("module", faults);
    const TraceCapture trace;
    CWrapperPkcs11 wrapper;
    EXPECT_TRUE(wrapper.SetLibraryPath(path));
    EXPECT_EQ(wrapper.Initialize(nullptr), CKR_GENERAL_ERROR);
    EXPECT_THAT(trace.Lines(),
                ElementsAre("WrapperPkcs11 - Failed to load library", Count(0, "initialize")));
    EXPECT_EQ(wrapper.CloseSession(1), CKR_GENERAL_ERROR);
    EXPECT_EQ(wrapper.ResetToken(1, 2, 3), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(::dlopen(path, RTLD_NOW | RTLD_NOLOAD) != nullptr, path == rows[1][1]) << "mapped";
  }
}

TEST_F(WrapperTest, GoesWithoutMissingExtensions) {
  EXPECT_TRUE(wrapper_.Load(kPartial));
  EXPECT_TRUE(wrapper_.Load("ignored"));
  EXPECT_THAT(trace_.Lines(), ElementsAre(Missing("SetVariable"), Missing("GetVariable"),
                                          Loaded(kPartial), Loaded("static")));
  EXPECT_EQ(wrapper_.SetVariable(1, 2), CKR_FUNCTION_NOT_SUPPORTED);
}

TEST_F(WrapperTest, LeavesPlainModuleUntouched) {
  std::memset(&card_.memory.extension, 0xA5, sizeof(ExtensionSlots));
  const ExtensionSlots before = card_.memory.extension;
  EXPECT_TRUE(wrapper_.Load(QIXX_FAKE_PLAIN));
  std::vector<std::string> lines;
  for (const char* const name : kExtensions) lines.push_back(Missing(name));
  lines.push_back(Loaded(QIXX_FAKE_PLAIN));
  EXPECT_THAT(trace_.Lines(), ElementsAreArray(lines));
  EXPECT_EQ(wrapper_.Reinitialize(nullptr), CKR_FUNCTION_NOT_SUPPORTED);
  EXPECT_EQ(wrapper_.AddExternalSlot(1, 2, 3), CKR_GENERAL_ERROR);
  EXPECT_EQ(std::memcmp(&before, &card_.memory.extension, sizeof(before)), 0);
}

TEST_F(WrapperTest, CallsEachExtensionInItsSlot) {
  std::string answers = "fail=C_SetPIN:99\nfail=C_RemoveExternalSlot:110\n";
  for (std::size_t i = 0; i < std::size(kExtensions); ++i) {
    answers += "fail=C_" + std::string(kExtensions[i]) + ":" + std::to_string(100 + i) + "\n";
  }
  folder_.Write("module", answers);
  EXPECT_EQ(wrapper_.SetTraceFile(1), CKR_FUNCTION_NOT_SUPPORTED) << "nothing was loaded yet";
  const CK_RV variable = wrapper_.SetVariable(1, 2);  // loads
  const CK_RV results[] = {wrapper_.Reinitialize(nullptr),
                           wrapper_.ResetToken(1, 2, 3),
                           wrapper_.UnlockPIN(1, 2, 3, 4, 5),
                           wrapper_.SetTraceFile(1),
                           wrapper_.SetPIN(1, nullptr, 0, nullptr, 0, ~std::uint64_t{0}),
                           wrapper_.GenerateChallenge(1, 2, 3),
                           wrapper_.SetTokenTimeout(1, 2),
                           wrapper_.SetTraceCallback(1),
                           variable,
                           wrapper_.GetVariable(1, 2, 3),
                           wrapper_.RemoveExternalSlot(1)};
  EXPECT_THAT(results, ElementsAre(100, 101, 102, 103, 104, 105, 106, 107, 108, 109, 110));
  EXPECT_EQ(wrapper_.SetPIN(1, nullptr, 0, nullptr, 0, 0xFFFFFFFF), 99U);
}

TEST_F(WrapperTest, MissesFunctions) {
  EXPECT_TRUE(wrapper_.Load(QIXX_FAKE_PLAIN));
  EXPECT_EQ(wrapper_.Initialize(nullptr), CKR_OK);
  card_.List() = {};
  EXPECT_EQ(wrapper_.GetInfo(nullptr), CKR_FUNCTION_NOT_SUPPORTED);
  EXPECT_EQ(wrapper_.WaitForSlotEvent(CKF_DONT_BLOCK, nullptr, nullptr), CKR_GENERAL_ERROR);
  EXPECT_EQ(wrapper_.Finalize(nullptr), CKR_GENERAL_ERROR);
  EXPECT_EQ(wrapper_.Initialize(nullptr), CKR_GENERAL_ERROR);
  EXPECT_EQ(trace_.Lines().back(), Count(1, "initialize")) << "neither is traced";
}

TEST_F(WrapperTest, LoadsWhenNeeded) {
  CK_FUNCTION_LIST_PTR list = nullptr;
  EXPECT_EQ(wrapper_.OpenSession(1, 0, nullptr, nullptr, nullptr), CKR_GENERAL_ERROR);
  EXPECT_EQ(wrapper_.Sign(1, nullptr, 0, nullptr, nullptr), CKR_GENERAL_ERROR);
  EXPECT_EQ(wrapper_.GetFunctionList(&list), CKR_FUNCTION_FAILED);
  EXPECT_EQ(wrapper_.Reinitialize(nullptr), CKR_OK);
  EXPECT_THAT(trace_.Lines(),
              ElementsAre(Count(0, "finalize"), "WrapperPkcs11 - Reinitialize released (0:0:0)",
                          Loaded(kSuite)));
  EXPECT_TRUE(wrapper_.Release());
  EXPECT_FALSE(wrapper_.Release());
  EXPECT_EQ(trace_.Lines().back(), "WrapperPkcs11 - Released");

  EXPECT_TRUE(wrapper_.SetLibraryPath(QIXX_FAKE_PLAIN));
  EXPECT_EQ(wrapper_.Initialize(nullptr), CKR_OK);
  EXPECT_TRUE(wrapper_.Release());
  EXPECT_EQ(wrapper_.Finalize(nullptr), CKR_OK);
  EXPECT_EQ(card_.finalized, 0) << "not ours any more";
  EXPECT_EQ(wrapper_.GetInfo(nullptr), CKR_FUNCTION_FAILED) << "loads again";
}

TEST_F(WrapperTest, TellsOfNewEvents) {
  std::uint64_t seen = 0;
  EXPECT_TRUE(wrapper_.HasNewEvent(seen)) << "the first question, though nothing is pending";
  EXPECT_FALSE(wrapper_.HasNewEvent(seen));
  folder_.Write("module", "fail=C_WaitForSlotEvent:0\n");
  EXPECT_TRUE(wrapper_.HasNewEvent(seen));
  EXPECT_EQ(trace_.Count("WrapperPkcs11 - Has new event"), 2U);
}

}  // namespace
}  // namespace qixx::testing
