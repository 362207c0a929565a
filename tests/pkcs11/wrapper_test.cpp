#include "pkcs11/wrapper.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "runtime/files.h"
#include "tests/pkcs11/fake_card.h"
#include "tests/support/environment.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"

namespace qixx::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

constexpr const char* kSuite = QIXX_FAKE_SUITE;      // with all extension functions
constexpr const char* kPartial = QIXX_FAKE_PARTIAL;  // without C_SetVariable
constexpr const char* kPlain = QIXX_FAKE_PLAIN;      // a standard module
constexpr const char* kNoList = QIXX_FAKE_NO_LIST;   // no module at all

std::string LoadedLine(const char* path) {
  return "WrapperPkcs11 - Loaded extended '" + std::string(path) + "'";
}

class WrapperTest : public ::testing::Test {
 protected:
  FakeCard card_;
  FakeModule suite_{kSuite, CKR_OK, &card_.List()};
  FakeModule partial_{kPartial, CKR_OK, &card_.List()};
  FakeModule plain_{kPlain, CKR_OK, &card_.List()};
  TraceCapture trace_;
  CWrapperPkcs11 wrapper_;
};

TEST_F(WrapperTest, SharesOneInitialisation) {
  wrapper_.SetLibraryPath(kSuite);
  EXPECT_EQ(wrapper_.Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
  EXPECT_EQ(wrapper_.Initialize(nullptr), CKR_OK);
  EXPECT_EQ(wrapper_.Initialize(nullptr), CKR_OK);
  EXPECT_EQ(wrapper_.Finalize(nullptr), CKR_OK);
  EXPECT_EQ(wrapper_.Finalize(nullptr), CKR_OK);
  EXPECT_EQ(card_.initialized, 1);
  EXPECT_EQ(card_.finalized, 1);
  EXPECT_THAT(trace_.Lines(),
              ElementsAre("WrapperPkcs11 - Initialize count 0 at finalize", LoadedLine(kSuite),
                          "WrapperPkcs11 - Initialize count 1 at initialize",
                          "WrapperPkcs11 - Initialize count 2 at initialize",
                          "WrapperPkcs11 - Initialize count 1 at finalize",
                          "WrapperPkcs11 - Initialize count 0 at finalize"));
}

TEST_F(WrapperTest, LeavesForeignInitialisationAlone) {
  wrapper_.SetLibraryPath(kSuite);
  card_.initializeResult = CKR_CRYPTOKI_ALREADY_INITIALIZED;
  EXPECT_EQ(wrapper_.Initialize(nullptr), CKR_OK);
  EXPECT_EQ(wrapper_.InitializeCount(), 1U);
  EXPECT_EQ(wrapper_.Finalize(nullptr), CKR_OK);
  EXPECT_EQ(card_.finalized, 0);

  card_.initializeResult = CKR_DEVICE_ERROR;
  EXPECT_EQ(wrapper_.Initialize(nullptr), CKR_DEVICE_ERROR);
  EXPECT_EQ(wrapper_.InitializeCount(), 0U);
  EXPECT_EQ(trace_.Lines().back(), "WrapperPkcs11 - Initialize count 0 at initialize");
}

TEST_F(WrapperTest, RefusesLibrariesWithoutList) {
  const struct {
    const char* name;
    const char* path;
    CK_RV result;
    CK_FUNCTION_LIST_PTR list;
  } rows[] = {
      {"no such file", "/nowhere/libnone.so", CKR_OK, nullptr},
      {"no C_GetFunctionList", kNoList, CKR_OK, nullptr},
      {"failing call", kPlain, CKR_HOST_MEMORY, &card_.List()},
      {"null list", kPlain, CKR_OK, nullptr},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const FakeModule module(row.path == kNoList ? kNoList : kPlain, row.result, row.list);
    CWrapperPkcs11 wrapper;
    wrapper.SetLibraryPath(row.path);
    trace_.Clear();
    CK_SLOT_ID slot = 0;
    EXPECT_EQ(wrapper.Initialize(nullptr), CKR_GENERAL_ERROR);
    EXPECT_THAT(trace_.Lines(), ElementsAre("WrapperPkcs11 - Failed to load library",
                                            "WrapperPkcs11 - Initialize count 0 at initialize"));
    EXPECT_EQ(wrapper.WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr), CKR_GENERAL_ERROR);
    EXPECT_EQ(wrapper.CloseSession(1), CKR_GENERAL_ERROR);
    EXPECT_EQ(wrapper.SetVariable(1, 2), CKR_GENERAL_ERROR);
    EXPECT_EQ(wrapper.ResetToken(1, 2, 3), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_FALSE(wrapper.Release());
  }
  EXPECT_EQ(trace_.Lines().back(), "WrapperPkcs11 - Destroyed");
  EXPECT_EQ(::dlopen(kNoList, RTLD_NOW | RTLD_NOLOAD), nullptr) << "still mapped";
}

TEST_F(WrapperTest, NamesMissingExtensions) {
  CWrapperPkcs11 partial;
  EXPECT_TRUE(partial.Load(kPartial));
  EXPECT_TRUE(partial.Load("ignored"));
  EXPECT_THAT(trace_.Lines(), ElementsAre("WrapperPkcs11 - Function C_SetVariable missing",
                                          LoadedLine(kPartial), LoadedLine("static")));
  EXPECT_EQ(partial.SetVariable(1, 2), CKR_FUNCTION_NOT_SUPPORTED);
  EXPECT_EQ(partial.GetVariable(1, 2, 3), 11123U);
}

TEST_F(WrapperTest, LeavesPlainModuleUntouched) {
  std::memset(&card_.memory.extension, 0xA5, sizeof(card_.memory.extension));
  const ExtensionSlots before = card_.memory.extension;
  EXPECT_TRUE(wrapper_.Load(kPlain));
  std::vector<std::string> lines;
  for (const char* name :
       {"Reinitialize", "ResetToken", "UnlockPIN", "SetTraceFile", "SetPINEx", "GenerateChallenge",
        "SetTokenTimeout", "SetTraceCallback", "SetVariable", "GetVariable"}) {
    lines.push_back("WrapperPkcs11 - Function C_" + std::string(name) + " missing");
  }
  lines.push_back(LoadedLine(kPlain));
  EXPECT_THAT(trace_.Lines(), ElementsAreArray(lines));
  EXPECT_EQ(wrapper_.ResetToken(1, 2, 3), CKR_FUNCTION_NOT_SUPPORTED);
  EXPECT_EQ(wrapper_.GetVariable(1, 2, 3), CKR_FUNCTION_NOT_SUPPORTED);
  EXPECT_EQ(wrapper_.SetPIN(1, nullptr, 2, nullptr, 3, 4), CKR_FUNCTION_NOT_SUPPORTED);
  EXPECT_EQ(wrapper_.Reinitialize(nullptr), CKR_FUNCTION_NOT_SUPPORTED);
  EXPECT_EQ(std::memcmp(&before, &card_.memory.extension, sizeof(before)), 0);
}

TEST_F(WrapperTest, PassesExtensionArgumentsOn) {
  int unused = 0;
  card_.memory.extension.unused = &unused;
  card_.List().C_SetPIN = [](CK_ULONG session, auto, CK_ULONG, auto, CK_ULONG) { return session; };
  EXPECT_EQ(wrapper_.SetTraceFile(1), CKR_FUNCTION_NOT_SUPPORTED);  // nothing was loaded yet
  EXPECT_EQ(wrapper_.RemoveExternalSlot(1), CKR_FUNCTION_NOT_SUPPORTED);
  wrapper_.SetLibraryPath(kSuite);
  EXPECT_EQ(wrapper_.SetVariable(1, 2), 1012U);  // loads
  EXPECT_EQ(wrapper_.Reinitialize(reinterpret_cast<void*>(7)), 17U);
  EXPECT_EQ(wrapper_.ResetToken(1, 2, 3), 2123U);
  EXPECT_EQ(wrapper_.UnlockPIN(1, 2, 3, 4, 5), 312345U);
  EXPECT_EQ(wrapper_.SetPIN(1, nullptr, 2, nullptr, 3, 4), 41234U);
  EXPECT_EQ(wrapper_.SetPIN(1, nullptr, 2, nullptr, 3, 0xFFFFFFFF), 1U);
  EXPECT_EQ(wrapper_.SetPIN(0, nullptr, 0, nullptr, 0, ~std::uint64_t{0}), 40000U - 1);
  EXPECT_EQ(wrapper_.SetTraceFile(1), 51U);
  EXPECT_EQ(wrapper_.SetTraceCallback(1), 61U);
  EXPECT_EQ(wrapper_.GenerateChallenge(1, 2, 3), 8123U);
  EXPECT_EQ(wrapper_.SetTokenTimeout(1, 2), 912U);
  EXPECT_EQ(wrapper_.ListCards(0x1FE, nullptr, nullptr), 0xFEU);
  EXPECT_EQ(wrapper_.AddExternalSlot(1, 2, 3), CKR_GENERAL_ERROR);  // not exported
  EXPECT_EQ(wrapper_.RemoveExternalSlot(1), 141U);
  EXPECT_EQ(card_.memory.extension.unused, &unused);
}

template <typename... Parameters>
CK_RV CallWithNothing(CForwarderPkcs11& forwarder,
                      CK_RV (CForwarderPkcs11::*operation)(Parameters...)) {
  return (forwarder.*operation)(Parameters{}...);
}

TEST_F(WrapperTest, ForwardsEachFunctionToItsOwnSlot) {
  enum Number : CK_RV {
#define QIXX_NUMBER(name, parameters, arguments) k##name,
    QIXX_CK_FUNCTIONS(QIXX_NUMBER)
  };
  wrapper_.Load(kSuite);
#define QIXX_CHECK(name, parameters, arguments)                                           \
  card_.List().C_##name = [](auto...) -> CK_RV { return 1000 + k##name; };                \
  EXPECT_EQ(CallWithNothing(wrapper_, &CForwarderPkcs11::name), 1000 + k##name) << #name; \
  card_.List().C_##name = nullptr;                                                        \
  EXPECT_EQ(CallWithNothing(wrapper_, &CForwarderPkcs11::name), CKR_FUNCTION_NOT_SUPPORTED);
  QIXX_CK_FUNCTIONS(QIXX_CHECK)
  EXPECT_EQ(wrapper_.Initialize(nullptr), CKR_GENERAL_ERROR);
  EXPECT_EQ(wrapper_.WaitForSlotEvent(CKF_DONT_BLOCK, nullptr, nullptr), CKR_GENERAL_ERROR);
}

TEST_F(WrapperTest, LoadsWhenNeeded) {
  wrapper_.SetLibraryPath(kSuite);
  CK_FUNCTION_LIST_PTR list = nullptr;
  EXPECT_EQ(wrapper_.OpenSession(1, 0, nullptr, nullptr, nullptr), CKR_GENERAL_ERROR);
  EXPECT_EQ(wrapper_.Sign(1, nullptr, 0, nullptr, nullptr), CKR_GENERAL_ERROR);
  EXPECT_EQ(wrapper_.GetFunctionList(&list), CKR_FUNCTION_FAILED);
  EXPECT_TRUE(trace_.Lines().empty());
  EXPECT_EQ(wrapper_.Reinitialize(nullptr), CKR_OK);
  EXPECT_THAT(trace_.Lines(),
              ElementsAre("WrapperPkcs11 - Initialize count 0 at finalize",
                          "WrapperPkcs11 - Reinitialize released (0:0:0)", LoadedLine(kSuite)));
  EXPECT_EQ(wrapper_.Initialize(nullptr), CKR_OK);
  EXPECT_TRUE(wrapper_.Release());
  EXPECT_FALSE(wrapper_.Release());
  EXPECT_EQ(trace_.Lines().back(), "WrapperPkcs11 - Released");
  EXPECT_EQ(wrapper_.InitializeCount(), 1U);
  EXPECT_EQ(wrapper_.Finalize(nullptr), CKR_OK);
  EXPECT_EQ(card_.finalized, 0);
  EXPECT_EQ(wrapper_.ResetToken(1, 2, 3), 2123U) << "loads again";
}

TEST_F(WrapperTest, TellsOfNewEvents) {
  wrapper_.SetLibraryPath(kSuite);
  std::uint64_t seen = 0;
  EXPECT_TRUE(wrapper_.HasNewEvent(seen)) << "the first question, though nothing is pending";
  EXPECT_FALSE(wrapper_.HasNewEvent(seen));
  card_.eventResult = CKR_OK;
  EXPECT_TRUE(wrapper_.HasNewEvent(seen));
  card_.eventResult = CKR_NO_EVENT;
  EXPECT_FALSE(wrapper_.HasNewEvent(seen));
  EXPECT_EQ(trace_.Count("WrapperPkcs11 - Has new event"), 2U);
}

TEST_F(WrapperTest, TakesItsPathFromConfiguration) {
  InitProductIdentity();
  const TemporaryFolder folder;
  const std::string file =
      folder.Write("qix.conf", "[Pkcs11]\nLibrary=" + std::string(kPlain) + "\n");
  const ScopedVariable local("qixconfiglocal", file.c_str());
  const ScopedVariable global("qixconfigglobal", file.c_str());
  EXPECT_TRUE(wrapper_.LoadLibraryFromConfig());
  EXPECT_STREQ(wrapper_.LibraryPath(), kPlain);
  EXPECT_FALSE(wrapper_.SetLibraryPath(std::string(kTextSize, 'x').c_str()));

  CWrapperPkcs11 fresh;
  EXPECT_EQ(fresh.AddExternalSlot(1, 2, 3), CKR_GENERAL_ERROR);
  EXPECT_STREQ(fresh.LibraryPath(), "libqixp11.so");
}

}  // namespace
}  // namespace qixx::testing
