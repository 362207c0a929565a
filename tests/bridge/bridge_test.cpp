// The bridge over the soft card, in its plain build, which knows nothing of the suite.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <set>
#include <sstream>
#include <thread>

#include "pkcs11/extended.h"
#include "tests/bridge/loaded_bridge.h"
#include "tests/support/eventually.h"
#include "tests/support/openssl.h"

namespace qixx::testing {
namespace {

using Numbers = std::vector<CK_SLOT_ID>;

class Bridge : public LoadedBridge {
 protected:
  Bridge() { folder_.Write("readers/module", ""); }

  void AddReader(const std::string& slot, const std::string& facts = "") {
    folder_.Write("readers/" + slot + "/slot", facts);
  }
  void RemoveReader(const std::string& slot) {
    std::filesystem::remove_all(folder_.Path("readers/" + slot));
  }
  void Insert(const std::string& slot) {
    folder_.Write("readers/" + slot + ".new/holder.der", "\x30\x01x");
    std::filesystem::create_directories(folder_.Path("readers/" + slot));
    std::filesystem::rename(folder_.Path("readers/" + slot + ".new"),
                            folder_.Path("readers/" + slot + "/card"));
  }
  void Remove(const std::string& slot) {
    std::filesystem::remove_all(folder_.Path("readers/" + slot + "/card"));
  }
  void SetFaults(const std::string& lines) { folder_.Write("readers/module", lines); }

  const ScopedVariable readers_{"QIXX_SOFTCARD", folder_.Path("readers").c_str()};
};

TEST_F(Bridge, NumbersReadersForTheService) {
  for (const char* const slot : {"0", "4", "900000001"}) AddReader(slot);
  Start(SOFTCARD_PLAIN);
  EXPECT_EQ(Slots(), (Numbers{1, 4, 7}));
  Insert("900000001");
  EXPECT_EQ(Slots(CK_TRUE), (Numbers{7}));

  // Gone and back, also under another id of the module's; a new one in front of it.
  RemoveReader("4");
  EXPECT_EQ(Slots(), (Numbers{1, 7}));
  AddReader("3", "description=Soft reader 4");
  AddReader("2");
  EXPECT_EQ(Slots(), (Numbers{1, 10, 4, 7}));

  for (int slot = 100; slot < 131; ++slot) AddReader(std::to_string(slot));
  const Numbers many = Slots();
  ASSERT_EQ(many.size(), 35U);
  EXPECT_EQ(many[30], 94U) << "the last group";
  EXPECT_EQ((Numbers{many[31], many[32], many[33], many[34]}), (Numbers{97, 98, 99, 7}));
}

TEST_F(Bridge, TranslatesEverySlot) {
  AddReader("0");
  Insert("5");
  Start(SOFTCARD_PLAIN);
  ASSERT_EQ(Slots(), (Numbers{1, 4}));
  CK_SLOT_INFO slot = {};
  ASSERT_EQ(list_->C_GetSlotInfo(4, &slot), CKR_OK);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(slot.slotDescription), 13), "Soft reader 5");
  CK_TOKEN_INFO token = {};
  EXPECT_EQ(list_->C_GetTokenInfo(4, &token), CKR_OK);
  EXPECT_EQ(list_->C_GetTokenInfo(1, &token), CKR_TOKEN_NOT_PRESENT);
  CK_ULONG count = 0;
  EXPECT_EQ(list_->C_GetMechanismList(4, nullptr, &count), CKR_OK);
  CK_MECHANISM_INFO mechanism = {};
  EXPECT_EQ(list_->C_GetMechanismInfo(4, 0, &mechanism), CKR_MECHANISM_INVALID);

  const CK_SESSION_HANDLE session = Open(4);
  CK_SESSION_INFO info = {};
  ASSERT_EQ(list_->C_GetSessionInfo(session, &info), CKR_OK);
  EXPECT_EQ(info.slotID, 4U);
  EXPECT_EQ(list_->C_CloseAllSessions(4), CKR_OK);
  EXPECT_EQ(list_->C_GetSessionInfo(session, &info), CKR_SESSION_HANDLE_INVALID);

  CK_SESSION_HANDLE none = 0;
  for (const CK_SLOT_ID unknown : {0, 2, 5, 7}) {
    EXPECT_EQ(list_->C_GetSlotInfo(unknown, &slot), CKR_SLOT_ID_INVALID) << unknown;
    EXPECT_EQ(list_->C_OpenSession(unknown, CKF_SERIAL_SESSION, nullptr, nullptr, &none),
              CKR_SLOT_ID_INVALID);
    EXPECT_EQ(list_->C_CloseAllSessions(unknown), CKR_SLOT_ID_INVALID);
    EXPECT_EQ(list_->C_InitToken(unknown, nullptr, 0, nullptr), CKR_SLOT_ID_INVALID);
  }
}

TEST_F(Bridge, EventsOfAnyModule) {
  const struct {
    const char* name;
    const char* faults;
  } rows[] = {{"a module with events", ""},
              {"one without", "fail=C_WaitForSlotEvent:0x54"},
              {"one that leaves the function out", "omit=C_WaitForSlotEvent"},
              {"one that keeps its events back", "fail=C_WaitForSlotEvent:0x8"},
              {"one whose events fail", "fail=C_WaitForSlotEvent:0x30"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    SetFaults(row.faults);
    AddReader("0");
    Insert("7");
    Start(SOFTCARD_PLAIN);
    EXPECT_EQ(Poll(), -1) << "what is there at start is no event";
    const auto next = [this](long slot) { return Eventually([&] { return Poll() == slot; }); };
    Insert("0");
    EXPECT_TRUE(next(1));
    EXPECT_TRUE(ShowsToken(1));
    Remove("7");
    EXPECT_TRUE(next(4));
    EXPECT_FALSE(ShowsToken(4));
    Insert("9");
    EXPECT_TRUE(next(7)) << "a new reader with a card in it";
    RemoveReader("9");
    EXPECT_TRUE(next(7)) << "pulled out with its card";
    EXPECT_EQ(Poll(), -1);
    RemoveReader("0");
    list_->C_Finalize(nullptr);
  }
}

TEST_F(Bridge, WaitingThreadGetsTheEventOrTheEnd) {
  AddReader("1");
  Start(SOFTCARD_PLAIN);
  for (const bool withCard : {true, false}) {
    std::atomic<CK_RV> result = CKR_NO_EVENT;
    std::thread waiting([&] {
      CK_SLOT_ID slot = 0;
      result = list_->C_WaitForSlotEvent(0, &slot, nullptr);
    });
    EXPECT_EQ(Slots().size(), 1U) << "another thread is not held up";
    if (withCard) {
      Insert("1");
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      EXPECT_EQ(list_->C_Finalize(nullptr), CKR_OK);
    }
    waiting.join();
    EXPECT_EQ(result, withCard ? CKR_OK : CKR_CRYPTOKI_NOT_INITIALIZED);
  }
}

TEST_F(Bridge, SuiteAttributeIsZeroUnlessTheModuleHasIt) {
  for (const bool suite : {false, true}) {
    SCOPED_TRACE(suite);
    folder_.Write("readers/1/card/first.der", "\x30\x01x");
    folder_.Write("readers/1/card/second.der", "\x30\x01y");  // its value is not zero
    Start(suite ? SOFTCARD_SUITE : SOFTCARD_PLAIN);
    const CK_SESSION_HANDLE session = Open(1);
    std::array<CK_OBJECT_HANDLE, 2> objects{};
    CK_ULONG count = 0;
    ASSERT_EQ(list_->C_FindObjectsInit(session, nullptr, 0), CKR_OK);
    ASSERT_EQ(list_->C_FindObjects(session, objects.data(), 2, &count), CKR_OK);
    ASSERT_EQ(list_->C_FindObjectsFinal(session), CKR_OK);
    const CK_OBJECT_HANDLE object = objects[1];

    std::array<char, 64> label{};
    std::array<CK_BYTE, 8> vendor{};
    vendor.fill(0xEE);
    CK_BBOOL modifiable = 2;
    CK_ATTRIBUTE all[] = {{kSuiteAttribute, vendor.data(), vendor.size()},
                          {CKA_LABEL, label.data(), label.size()},
                          {CKA_MODIFIABLE, &modifiable, 1}};
    EXPECT_EQ(list_->C_GetAttributeValue(session, object, all, 3), CKR_OK);
    EXPECT_EQ(all[0].ulValueLen, 8U);
    EXPECT_EQ(vendor == (std::array<CK_BYTE, 8>{}), !suite);
    EXPECT_EQ(std::string(label.data(), all[1].ulValueLen), "second");
    EXPECT_NE(modifiable, 2);

    CK_ATTRIBUTE length = {kSuiteAttribute, nullptr, 0};
    EXPECT_EQ(list_->C_GetAttributeValue(session, object, &length, 1), CKR_OK);
    EXPECT_EQ(length.ulValueLen, 8U);
    CK_ATTRIBUTE small = {kSuiteAttribute, vendor.data(), 7};
    EXPECT_EQ(list_->C_GetAttributeValue(session, object, &small, 1), CKR_BUFFER_TOO_SMALL);
    CK_ATTRIBUTE unknown[] = {{CKA_MODULUS, nullptr, 0}, {kSuiteAttribute, nullptr, 0}};
    EXPECT_EQ(list_->C_GetAttributeValue(session, object, unknown, 2), CKR_ATTRIBUTE_TYPE_INVALID);
    EXPECT_EQ(unknown[0].ulValueLen, CK_UNAVAILABLE_INFORMATION);
    EXPECT_EQ(unknown[1].ulValueLen, 8U);
    EXPECT_EQ(list_->C_GetAttributeValue(session + 99, object, &length, 1),
              CKR_SESSION_HANDLE_INVALID);
    list_->C_Finalize(nullptr);
  }
}

TEST_F(Bridge, VariablesAreKeptOnTheFirstToken) {
  AddReader("0");
  Insert("1");
  Start(SOFTCARD_PLAIN);
  const auto set = Function<CK_RV (*)(const char*, const char*)>("C_SetVariable");
  const auto get = Function<CK_RV (*)(const char*, char*, CK_ULONG*)>("C_GetVariable");
  std::array<char, 8> value{};
  CK_ULONG length = value.size();
  const auto read = [&](const char* name) {
    length = value.size();
    return get(name, value.data(), &length) == CKR_OK ? value.data() : "none";
  };
  EXPECT_EQ(get("a", value.data(), &length), CKR_DATA_INVALID);
  EXPECT_EQ(set("ActiveLogonUPN", "ann"), CKR_OK);
  EXPECT_EQ(set("b", "two words"), CKR_OK);
  EXPECT_EQ(set("ActiveLogonUPN", "bob"), CKR_OK);
  EXPECT_STREQ(read("ActiveLogonUPN"), "bob");
  EXPECT_EQ(length, 4U);
  EXPECT_EQ(get("b", nullptr, &length), CKR_OK);
  EXPECT_EQ(length, sizeof "two words");
  length = value.size();
  EXPECT_EQ(get("b", value.data(), &length), CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ(set("b", nullptr), CKR_OK);
  EXPECT_STREQ(read("b"), "none");
  EXPECT_STREQ(read("ActiveLogonUPN"), "bob");
  EXPECT_EQ(set("", "x"), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(set("x", "blank "), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(get(nullptr, nullptr, &length), CKR_ARGUMENTS_BAD);
  Remove("1");
  EXPECT_EQ(set("x", "y"), CKR_TOKEN_NOT_PRESENT);
}

TEST_F(Bridge, ForwardsAllAndRefusesWhatItCannotServe) {
  AddReader("1");
  Load(SOFTCARD_PLAIN);
  CK_INFO info = {};
  CK_ULONG count = 0;
  EXPECT_EQ(list_->C_GetInfo(&info), CKR_CRYPTOKI_NOT_INITIALIZED);
  EXPECT_EQ(list_->C_GetSlotList(CK_FALSE, nullptr, &count), CKR_CRYPTOKI_NOT_INITIALIZED);
  EXPECT_EQ(list_->C_Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
#define IS_THERE(name, parameters, arguments) EXPECT_NE(list_->C_##name, nullptr) << #name;
  QIXX_CK_FUNCTIONS(IS_THERE)
#undef IS_THERE

  SetFaults("log=1\nfail=C_GenerateRandom:0x1234");
  ASSERT_EQ(list_->C_Initialize(nullptr), CKR_OK);
  EXPECT_EQ(list_->C_Initialize(nullptr), CKR_CRYPTOKI_ALREADY_INITIALIZED);
  EXPECT_EQ(list_->C_GetInfo(&info), CKR_OK);
  EXPECT_EQ(list_->C_GenerateRandom(1, nullptr, 0), 0x1234U) << "answers pass through";
  EXPECT_EQ(list_->C_Login(1, CKU_USER, nullptr, 0), CKR_FUNCTION_NOT_SUPPORTED);
  EXPECT_EQ(list_->C_GetSlotList(CK_FALSE, nullptr, nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(list_->C_GetSlotInfo(1, nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(list_->C_WaitForSlotEvent(CKF_DONT_BLOCK, nullptr, nullptr), CKR_ARGUMENTS_BAD);

  const ExtensionSlots& slots = reinterpret_cast<ExtendedFunctionList*>(list_)->extension;
  for (const auto& [name, entry] : std::initializer_list<std::pair<const char*, void*>>{
           {"C_Reinitialize", reinterpret_cast<void*>(slots.C_Reinitialize)},
           {"C_ResetToken", reinterpret_cast<void*>(slots.C_ResetToken)},
           {"C_UnlockPIN", reinterpret_cast<void*>(slots.C_UnlockPIN)},
           {"C_SetPINEx", reinterpret_cast<void*>(slots.C_SetPINEx)},
           {"C_SetTraceFile", reinterpret_cast<void*>(slots.C_SetTraceFile)},
           {"C_SetTraceCallback", reinterpret_cast<void*>(slots.C_SetTraceCallback)},
           {"C_GenerateChallenge", reinterpret_cast<void*>(slots.C_GenerateChallenge)},
           {"C_SetTokenTimeout", reinterpret_cast<void*>(slots.C_SetTokenTimeout)},
           {"C_SetVariable", reinterpret_cast<void*>(slots.C_SetVariable)},
           {"C_GetVariable", reinterpret_cast<void*>(slots.C_GetVariable)}}) {
    EXPECT_NE(entry, nullptr) << name;
    EXPECT_EQ(entry, Function<void*>(name)) << name;
  }
  EXPECT_EQ(slots.C_SetPINEx(1, nullptr, 0, nullptr, 0, 0), CKR_FUNCTION_NOT_SUPPORTED);
  EXPECT_EQ(slots.C_UnlockPIN(0, 0, 0, 0, 0), CKR_FUNCTION_NOT_SUPPORTED);
  EXPECT_EQ(Function<ExtensionFunction1>("C_RemoveExternalSlot")(0), CKR_FUNCTION_NOT_SUPPORTED);
  EXPECT_EQ(Function<ListCardsFunction>("C_ListCards")(0, nullptr, &count), CKR_OK);
  EXPECT_EQ(count, 1U);
  Insert("1");
  const CK_SESSION_HANDLE session = Open(1);
  EXPECT_EQ(slots.C_Reinitialize(nullptr), CKR_OK);
  EXPECT_EQ(list_->C_CloseSession(session), CKR_SESSION_HANDLE_INVALID);
  const std::string calls = folder_.Read("readers/calls");
  for (const char* const pin : {"C_SetPIN\n", "C_InitPIN\n", "C_InitToken\n"}) {
    EXPECT_EQ(calls.find(pin), std::string::npos) << pin;
  }
}

TEST_F(Bridge, ModuleThatIsNone) {
  Load("no-such-module.so");
  for (const std::string& module : {std::string("no-such-module.so"), folder_.Path("missing.so"),
                                    std::string("libc.so.6"), path_}) {
    ::setenv("qix:Pkcs11:Module", module.c_str(), 1);
    EXPECT_EQ(list_->C_Initialize(nullptr), CKR_LIBRARY_LOAD_FAILED) << module;
  }
  SetFaults("fail=C_Initialize:0x30");
  ::setenv("qix:Pkcs11:Module", SOFTCARD_PLAIN, 1);
  EXPECT_EQ(list_->C_Initialize(nullptr), CKR_DEVICE_ERROR);
  SetFaults("");
  EXPECT_EQ(list_->C_Initialize(nullptr), CKR_OK) << "it can be mended while the process runs";
}

TEST_F(Bridge, ModuleThatAnswersBadly) {
  AddReader("1");
  Start(SOFTCARD_PLAIN);
  Insert("1");
  ASSERT_TRUE(Eventually([this] { return Poll() == 1; }));
  for (const char* const fault : {"fail=C_GetSlotList:0x30", "fail=C_GetSlotInfo:0x30",
                                  "fail=C_GetSlotList:0x150", "fail=C_OpenSession:0x6"}) {
    SCOPED_TRACE(fault);
    SetFaults(std::string(fault) + "\nfail=C_WaitForSlotEvent:0x54");
    Poll();
    CK_ULONG count = 0;
    (void)list_->C_GetSlotList(CK_TRUE, nullptr, &count);
    SetFaults("");
  }
  Remove("1");
  EXPECT_TRUE(Eventually([this] { return Poll() == -1 && !ShowsToken(1); }));
  EXPECT_EQ(Slots(), (Numbers{1}));
}

TEST_F(Bridge, ExportsItsInterfaceAndLinksTheRuntimeOnly) {
  std::istringstream needed(
      OutputOf("readelf -dW '" BRIDGE "' | sed -n 's/.*(NEEDED).*\\[\\(.*\\)\\]/\\1/p'"));
  const std::set<std::string> allowed = {"libstdc++.so.6",       "libm.so.6",
                                         "libgcc_s.so.1",        "libc.so.6",
                                         "libdl.so.2",           "libasan.so.8",
                                         "libubsan.so.1",        "libtsan.so.2",
                                         "ld-linux-x86-64.so.2", "ld-linux-aarch64.so.1"};
  std::size_t seen = 0;
  for (std::string library; std::getline(needed, library); ++seen) {
    EXPECT_TRUE(allowed.contains(library)) << library;
  }
  EXPECT_GT(seen, 0U) << "readelf (package binutils) gave no list of libraries";
  const std::string exported = OutputOf("nm -DP --defined-only '" BRIDGE
                                        "' | grep -c ^C_; nm -DP "
                                        "--defined-only '" BRIDGE "' | grep -vc ^C_; true");
  EXPECT_EQ(exported, "14\n0\n") << "its functions, and nothing else";
}

}  // namespace
}  // namespace qixx::testing
