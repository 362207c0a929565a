// The bridge in this process, over the soft card in its plain build, which knows nothing of the
// suite.
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <future>
#include <thread>

#include "pkcs11/extended.h"
#include "tests/end_to_end/desktop.h"
#include "tests/support/eventually.h"
#include "tests/support/loaded_module.h"
#include "tests/support/openssl.h"

namespace qixx::testing {
namespace {

class Bridge : public LoadedModule {
 protected:
  /// The bridge over `module`; a copy of its own each time, since it keeps its numbers as long as
  /// the process.
  void Load(const std::string& module) override {
    ::setenv("qix:Pkcs11:Module", module.c_str(), 1);
    path_ = folder_.Path("bridge" + std::to_string(++copies_) + ".so");
    std::filesystem::copy_file(BRIDGE, path_);
    LoadedModule::Load(path_);
  }
  void RemoveReader(int slot) const {
    std::filesystem::remove_all(desktop_.Path("readers/" + std::to_string(slot)));
  }
  void AddReader(int slot, const std::string& name) const {
    desktop_.Home().Write("readers/" + std::to_string(slot) + "/slot", "description=" + name);
  }

  /// Polls until the next event is this slot's.
  [[nodiscard]] bool NextIs(long slot) {
    return Eventually([&] { return Poll() == slot; });
  }

  const Desktop desktop_;  ///< reader 1 is there
  const ScopedVariable home_{"HOME", folder_.Path().c_str()};
  const ScopedVariable module_{"qix:Pkcs11:Module", nullptr};
  /// The machine's own card readers stay out of it.
  const ScopedVariable noReaders_{"PCSCLITE_CSOCK_NAME", folder_.Path("none").c_str()};
  const ScopedVariable readers_{"QIXX_SOFTCARD", desktop_.Path("readers").c_str()};
  std::string path_;
  int copies_ = 0;
};

TEST_F(Bridge, NumbersReadersForTheService) {
  for (const int slot : {0, 4, 900000001}) desktop_.AddReader(slot);
  RemoveReader(1);
  Start(SOFTCARD_PLAIN);
  EXPECT_EQ(Slots(), (Numbers{1, 4, 7}));
  desktop_.InsertCard(900000001);
  EXPECT_EQ(Slots(CK_TRUE), (Numbers{7}));

  RemoveReader(4);
  EXPECT_EQ(Slots(), (Numbers{1, 7}));
  AddReader(4, "Another");
  desktop_.InsertCard(4);
  EXPECT_EQ(Slots(CK_TRUE), (Numbers{10, 7})) << "an id is used anew, not its number";
  EXPECT_EQ(list_->C_CloseAllSessions(4), CKR_SLOT_ID_INVALID);
  AddReader(3, "Soft reader 4");
  EXPECT_EQ(Slots(), (Numbers{1, 4, 10, 7})) << "back, under another id";
  AddReader(3, "Soft reader with a card in it");
  EXPECT_EQ(Slots(), (Numbers{1, 4, 10, 7})) << "it stays, and has a new name";

  for (int slot = 100; slot < 131; ++slot) desktop_.AddReader(slot);
  const Numbers many = Slots();
  ASSERT_EQ(many.size(), 35U);
  EXPECT_EQ((Numbers{many[29], many[30], many[31], many[32], many[34]}),
            (Numbers{91, 94, 97, 98, 7}));
}

TEST_F(Bridge, TranslatesEverySlot) {
  desktop_.InsertCard(5);
  Start(SOFTCARD_PLAIN);
  CK_SLOT_INFO slot = {};
  CK_TOKEN_INFO token = {};
  CK_MECHANISM_INFO mechanism = {};
  CK_SESSION_INFO info = {};
  CK_SESSION_HANDLE session = Open(4);
  CK_ULONG count = 0;
  ASSERT_EQ(list_->C_GetSlotInfo(4, &slot), CKR_OK);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(slot.slotDescription), 13), "Soft reader 5");
  EXPECT_EQ(list_->C_GetTokenInfo(4, &token), CKR_OK);
  EXPECT_EQ(list_->C_GetTokenInfo(1, &token), CKR_TOKEN_NOT_PRESENT);
  EXPECT_EQ(list_->C_GetMechanismList(4, nullptr, &count), CKR_OK);
  EXPECT_EQ(list_->C_GetMechanismInfo(4, 0, &mechanism), CKR_MECHANISM_INVALID);
  ASSERT_EQ(list_->C_GetSessionInfo(session, &info), CKR_OK);
  EXPECT_EQ(info.slotID, 4U);
  EXPECT_EQ(list_->C_CloseAllSessions(4), CKR_OK);
  EXPECT_EQ(list_->C_GetSessionInfo(session, &info), CKR_SESSION_HANDLE_INVALID);
  for (const CK_SLOT_ID unknown : {0U, 2U, 5U, 7U}) {
    EXPECT_EQ(list_->C_GetSlotInfo(unknown, &slot), CKR_SLOT_ID_INVALID) << unknown;
    EXPECT_EQ(list_->C_OpenSession(unknown, CKF_SERIAL_SESSION, nullptr, nullptr, &session),
              CKR_SLOT_ID_INVALID);
  }
}

TEST_F(Bridge, EventsOfAnyModule) {
  const std::pair<const char*, const char*> rows[] = {
      {"a module with events", ""},
      {"one without", "fail=C_WaitForSlotEvent:0x54"},
      {"one that leaves the function out", "omit=C_WaitForSlotEvent"},
      {"one that keeps its events back", "fail=C_WaitForSlotEvent:0x8"}};
  for (const auto& [name, faults] : rows) {
    SCOPED_TRACE(name);
    desktop_.SetModuleFaults(faults);
    desktop_.InsertCard(7);
    Start(SOFTCARD_PLAIN);
    EXPECT_EQ(Poll(), -1) << "what is there at start is no event";
    desktop_.RemoveCard(7);
    EXPECT_TRUE(NextIs(4));
    EXPECT_EQ(Slots(CK_TRUE), (Numbers{}));
    desktop_.InsertCard(1);
    EXPECT_TRUE(NextIs(1));
    EXPECT_EQ(Slots(CK_TRUE), (Numbers{1}));
    desktop_.RemoveCard(1);
    EXPECT_TRUE(NextIs(1));
    desktop_.InsertCard(9);
    EXPECT_TRUE(NextIs(7)) << "a new reader with a card in it";
    RemoveReader(9);
    EXPECT_TRUE(NextIs(7)) << "pulled out with its card";
    EXPECT_EQ(Poll(), -1);
    list_->C_Finalize(nullptr);
  }
}

TEST_F(Bridge, TellsOfOneCardAtATime) {
  struct Reader {
    int id;
    long number;
  };
  const Reader readers[] = {{1, 1}, {5, 4}};
  for (const std::size_t first : {0U, 1U}) {
    const Reader badge = readers[first];
    const Reader other = readers[1 - first];
    SCOPED_TRACE(badge.id);
    for (const Reader& reader : readers) desktop_.AddReader(reader.id);
    Start(SOFTCARD_PLAIN);
    desktop_.InsertCard(badge.id);
    EXPECT_EQ(Poll(), badge.number);
    desktop_.InsertCard(other.id);
    EXPECT_EQ(Poll(), -1);
    EXPECT_EQ(Slots(CK_TRUE), (Numbers{CK_ULONG(badge.number), CK_ULONG(other.number)}));
    desktop_.RemoveCard(other.id);
    EXPECT_EQ(Poll(), -1) << "nor that it has gone";
    desktop_.InsertCard(other.id);
    EXPECT_EQ(Poll(), -1);
    desktop_.RemoveCard(badge.id);
    EXPECT_EQ(Poll(), badge.number);
    EXPECT_EQ(Poll(), other.number) << "still in elsewhere";
    desktop_.InsertCard(badge.id);
    EXPECT_EQ(Poll(), -1);
    RemoveReader(other.id);
    EXPECT_EQ(Poll(), other.number) << "pulled out with its card";
    EXPECT_EQ(Poll(), badge.number);
    desktop_.RemoveCard(badge.id);
    EXPECT_EQ(Poll(), badge.number);
    EXPECT_EQ(Poll(), -1);
    list_->C_Finalize(nullptr);
  }
}

TEST_F(Bridge, BeginsWithTheCardThatIsListedFirst) {
  for (const int slot : {1, 5}) desktop_.InsertCard(slot);
  Start(SOFTCARD_PLAIN);
  EXPECT_EQ(Poll(), -1);
  EXPECT_EQ(Slots(CK_TRUE), (Numbers{1, 4}));
  desktop_.RemoveCard(1);
  EXPECT_EQ(Poll(), 1);
  EXPECT_EQ(Poll(), 4);
  desktop_.InsertCard(1);
  EXPECT_EQ(Function<pkcs11::ReinitializeFunction>("C_Reinitialize")(nullptr), CKR_OK);
  EXPECT_EQ(Slots(CK_TRUE), (Numbers{4, 1})) << "still the one that was told of";
  EXPECT_EQ(Poll(), -1);
  desktop_.RemoveCard(5);
  EXPECT_EQ(Poll(), 4);
  desktop_.RemoveCard(1);
  EXPECT_EQ(Poll(), -1);

  desktop_.InsertCard(5);
  EXPECT_EQ(Slots(CK_TRUE), (Numbers{4}));
  desktop_.RemoveCard(5);
  EXPECT_EQ(Poll(), 4) << "who saw it listed has to hear that it has gone";
  EXPECT_EQ(Poll(), -1);
}

TEST_F(Bridge, TellsOfTheReadersThatCount) {
  desktop_.Home().Write("readers/2/slot", "description=Token in software\nflags=0\n");
  struct Row {
    const char* readers;
    const char* ignore;
    Numbers counting;
  };
  const Row rows[] = {{nullptr, nullptr, {1, 7}},
                      {nullptr, "soft READER 1||none", {7}},
                      {"*", nullptr, {1, 4, 7}},
                      {" token* | | *3 ", "?oft*", {4}},
                      {"Soft reader", nullptr, {}}};
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.readers == nullptr ? "" : row.readers) + " without " +
                 (row.ignore == nullptr ? "" : row.ignore));
    const ScopedVariable readers("qix:Pkcs11:Readers", row.readers);
    const ScopedVariable ignore("qix:Pkcs11:Ignore", row.ignore);
    for (const int slot : {1, 2, 3}) desktop_.InsertCard(slot);
    Start(SOFTCARD_PLAIN);
    const auto slotCounts = Function<int (*)(CK_SLOT_ID)>("QixSlotCounts");
    EXPECT_EQ(slotCounts(10), -1);
    EXPECT_EQ(Slots(), (Numbers{1, 4, 7}));
    EXPECT_EQ(Slots(CK_TRUE), row.counting);
    for (const CK_SLOT_ID slot : {1U, 4U, 7U}) {
      CK_SLOT_INFO info = {};
      EXPECT_EQ(list_->C_GetSlotInfo(slot, &info), CKR_OK);
      EXPECT_NE(info.flags & CKF_TOKEN_PRESENT, 0U);
      EXPECT_EQ(list_->C_CloseSession(Open(slot)), CKR_OK) << "who names it can use it";
    }
    for (const int slot : {3, 2, 1}) desktop_.RemoveCard(slot);
    const long first = row.counting.empty() ? -1 : static_cast<long>(row.counting.front());
    EXPECT_EQ(Poll(), first);
    EXPECT_EQ(Poll(), -1);
    for (const int slot : {1, 2, 3}) {
      desktop_.InsertCard(slot);
      const CK_ULONG number = static_cast<CK_ULONG>(slot) * 3 - 2;
      const bool counts =
          std::find(row.counting.begin(), row.counting.end(), number) != row.counting.end();
      EXPECT_EQ(slotCounts(number), counts ? 1 : 0);
      const long told = counts ? static_cast<long>(number) : -1;
      EXPECT_EQ(Poll(), told);
      desktop_.RemoveCard(slot);
      EXPECT_EQ(Poll(), told);
    }
    list_->C_Finalize(nullptr);
  }
}

TEST_F(Bridge, WaitingThreadGetsTheEventOrTheEnd) {
  Start(SOFTCARD_PLAIN);
  for (const bool withCard : {true, false}) {
    auto waiting = std::async(std::launch::async, [this] {
      CK_SLOT_ID slot = 0;
      return list_->C_WaitForSlotEvent(0, &slot, nullptr);
    });
    EXPECT_EQ(Slots().size(), 1U) << "another thread is not held up";
    if (withCard) {
      desktop_.InsertCard(1);
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      EXPECT_EQ(list_->C_Finalize(nullptr), CKR_OK);
    }
    EXPECT_EQ(waiting.get(), withCard ? CKR_OK : CKR_CRYPTOKI_NOT_INITIALIZED);
  }
}

TEST_F(Bridge, SuiteAttributeIsZeroUnlessTheModuleHasIt) {
  for (const char* const name : {"first", "second"}) {
    desktop_.Home().Write(std::string("readers/1/card/") + name + ".der", "\x30\x01x");
  }
  for (const bool suite : {false, true}) {
    SCOPED_TRACE(suite);
    Start(suite ? SOFTCARD_SUITE : SOFTCARD_PLAIN);
    const CK_SESSION_HANDLE session = Open(1);
    const CK_OBJECT_HANDLE object = Search(session).at(1);  // whose value is not zero
    std::array<char, 64> label{};
    std::array<CK_BYTE, 8> value{0xEE};
    CK_ATTRIBUTE both[] = {{pkcs11::kSuiteAttribute, value.data(), value.size()},
                           {CKA_LABEL, label.data(), label.size()}};
    EXPECT_EQ(list_->C_GetAttributeValue(session, object, both, 2), CKR_OK);
    EXPECT_EQ(both[0].ulValueLen, 8U);
    EXPECT_EQ(value == (std::array<CK_BYTE, 8>{}), !suite);
    EXPECT_EQ(std::string(label.data(), both[1].ulValueLen), "second");
    EXPECT_EQ(list_->C_GetAttributeValue(session + 99, object, both, 1),
              CKR_SESSION_HANDLE_INVALID);
    both[0].ulValueLen = 7;
    EXPECT_EQ(list_->C_GetAttributeValue(session, object, both, 1), CKR_BUFFER_TOO_SMALL);
    CK_ATTRIBUTE unknown[] = {{CKA_MODULUS, nullptr, 0}, {pkcs11::kSuiteAttribute, nullptr, 0}};
    EXPECT_EQ(list_->C_GetAttributeValue(session, object, unknown, 2), CKR_ATTRIBUTE_TYPE_INVALID);
    EXPECT_EQ(unknown[0].ulValueLen, CK_UNAVAILABLE_INFORMATION);
    EXPECT_EQ(unknown[1].ulValueLen, 8U);
    list_->C_Finalize(nullptr);
  }
}

TEST_F(Bridge, VariablesAreKeptOnTheFirstToken) {
  desktop_.InsertCard(2);
  Start(SOFTCARD_PLAIN);
  const auto set = Function<CK_RV (*)(const char*, const char*)>("C_SetVariable");
  const auto get = Function<CK_RV (*)(const char*, char*, CK_ULONG*)>("C_GetVariable");
  std::array<char, 8> value{};
  CK_ULONG length = 0;
  const auto read = [&](const char* name) {
    length = value.size();
    return get(name, value.data(), &length) == CKR_OK ? value.data() : "none";
  };
  EXPECT_EQ(set("ActiveLogonUPN", "ann"), CKR_OK);
  EXPECT_EQ(set("b", "two words"), CKR_OK);
  EXPECT_EQ(set("ActiveLogonUPN", "bob"), CKR_OK);
  EXPECT_STREQ(read("ActiveLogonUPN"), "bob");
  EXPECT_EQ(length, 4U);
  EXPECT_EQ(get("b", value.data(), &length), CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ(length, sizeof "two words");
  EXPECT_EQ(set("b", nullptr), CKR_OK);
  EXPECT_EQ(get("b", value.data(), &length), CKR_DATA_INVALID);
  EXPECT_STREQ(read("ActiveLogonUPN"), "bob");
  EXPECT_EQ(set("", "x"), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(set("x", "blank "), CKR_ARGUMENTS_BAD);
  desktop_.RemoveCard(2);
  EXPECT_EQ(set("x", "y"), CKR_TOKEN_NOT_PRESENT);
}

TEST_F(Bridge, BeginsAndEnds) {
  Load(SOFTCARD_PLAIN);
  CK_INFO info = {};
  EXPECT_EQ(list_->C_GetInfo(&info), CKR_CRYPTOKI_NOT_INITIALIZED);
  EXPECT_EQ(list_->C_Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
  ASSERT_EQ(list_->C_Initialize(nullptr), CKR_OK);
  EXPECT_EQ(list_->C_Initialize(nullptr), CKR_CRYPTOKI_ALREADY_INITIALIZED);
  EXPECT_EQ(list_->C_Finalize(&info), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(list_->C_GetInfo(&info), CKR_OK) << "it did not end";

  const auto beginAnew = [&] {
    return list_->C_GetInfo(&info) == CKR_CRYPTOKI_NOT_INITIALIZED &&
           list_->C_Initialize(nullptr) == CKR_OK && list_->C_GetInfo(&info) == CKR_OK;
  };
  EXPECT_EXIT(::_exit(beginAnew() ? 0 : 1), ::testing::ExitedWithCode(0), "") << "a child";

  desktop_.InsertCard(1);
  const CK_SESSION_HANDLE session = Open(1);
  EXPECT_EQ(Function<pkcs11::ReinitializeFunction>("C_Reinitialize")(nullptr), CKR_OK);
  EXPECT_EQ(list_->C_CloseSession(session), CKR_SESSION_HANDLE_INVALID);
}

TEST_F(Bridge, ForwardsAllAndRefusesWhatItCannotServe) {
  desktop_.SetModuleFaults("fail=C_GenerateRandom:0x1234");
  Start(SOFTCARD_PLAIN);
  EXPECT_EQ(list_->C_GenerateRandom(1, nullptr, 0), 0x1234U) << "answers pass through";
  EXPECT_EQ(list_->C_GetSlotList(CK_FALSE, nullptr, nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(list_->C_GetSlotInfo(1, nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(list_->C_WaitForSlotEvent(CKF_DONT_BLOCK, nullptr, nullptr), CKR_ARGUMENTS_BAD);

  const pkcs11::ExtensionSlots& slots =
      reinterpret_cast<pkcs11::ExtendedFunctionList*>(list_)->extension;
  const auto* entry = reinterpret_cast<void* const*>(&slots);
  for (const char* const name :
       {"Reinitialize", "ResetToken", "UnlockPIN", "SetPINEx", "SetTraceFile", "SetTraceCallback",
        "none", "GenerateChallenge", "SetTokenTimeout", "SetVariable", "GetVariable"}) {
    EXPECT_EQ(*entry++, Function<void*>(std::string("C_") + name)) << name;
  }
  EXPECT_EQ(slots.C_SetPINEx(1, nullptr, 0, nullptr, 0, 0), CKR_FUNCTION_NOT_SUPPORTED);
  EXPECT_EQ(Function<pkcs11::RemoveExternalSlotFunction>("C_RemoveExternalSlot")(0),
            CKR_FUNCTION_NOT_SUPPORTED);
  CK_ULONG count = 0;
  EXPECT_EQ(Function<pkcs11::ListCardsFunction>("C_ListCards")(0, nullptr, &count), CKR_OK);
  EXPECT_EQ(count, 1U);
}

TEST_F(Bridge, ModuleThatIsNone) {
  Load("no-such-module.so");
  const auto fault = Function<const char* (*)()>("QixModuleFault");
  for (const std::string& module :
       {std::string("no-such-module.so"), std::string("libc.so.6"), path_}) {
    ::setenv("qix:Pkcs11:Module", module.c_str(), 1);
    EXPECT_EQ(list_->C_Initialize(nullptr), CKR_GENERAL_ERROR) << module;
    EXPECT_THAT(fault(), ::testing::HasSubstr("'" + module + "'"));
  }
  desktop_.SetModuleFaults("fail=C_Initialize:0x30");
  ::setenv("qix:Pkcs11:Module", SOFTCARD_PLAIN, 1);
  EXPECT_EQ(list_->C_Initialize(nullptr), CKR_DEVICE_ERROR);
  desktop_.SetModuleFaults("");
  EXPECT_STREQ(fault(), "");
  EXPECT_EQ(list_->C_Initialize(nullptr), CKR_OK) << "it can be mended while the process runs";
}

TEST_F(Bridge, ModuleThatAnswersBadly) {
  desktop_.InsertCard(1);
  Start(SOFTCARD_PLAIN);
  const std::string eventless = "fail=C_WaitForSlotEvent:0x54\n";
  desktop_.SetModuleFaults(eventless + "fail=C_GetSlotList:0x30");
  EXPECT_EQ(Poll(), -1) << "a list that fails says nothing";
  desktop_.SetModuleFaults(eventless + "fail=C_GetSlotInfo:0x30");
  EXPECT_EQ(Poll(), 1) << "of which nothing can be read, that holds no token";
  desktop_.SetModuleFaults("");
  EXPECT_EQ(Poll(), 1) << "it can be read again";
  EXPECT_EQ(Slots(), (Numbers{1}));
}

/// SoftHSM, a module of other people: no slot events, and slot ids of nine digits and more.
using SoftHsm = Bridge;

TEST_F(SoftHsm, TokensCountWhereTheyAreNamed) {
  if (OutputOf("command -v softhsm2-util").empty()) {
    GTEST_SKIP() << "NOT TESTED on SoftHSM: not installed (package softhsm2)";
  }
  folder_.Write("tokens/keep", "");
  folder_.Write("softhsm2.conf", "directories.tokendir = " + folder_.Path("tokens") + "\n");
  const ScopedVariable settings("SOFTHSM2_CONF", folder_.Path("softhsm2.conf").c_str());
  ASSERT_NE(OutputOf("softhsm2-util --init-token --free --label one --pin 1234 --so-pin 1234"), "");

  Start("libsofthsm2.so");
  ASSERT_EQ(Slots(), (Numbers{1, 4})) << "the token's, and a free one";
  EXPECT_EQ(Slots(CK_TRUE), (Numbers{})) << "that is always in";
  EXPECT_EQ(Poll(), -1);
  CK_UTF8CHAR pin[] = "1234";
  CK_UTF8CHAR label[] = "two                             ";
  ASSERT_EQ(list_->C_InitToken(4, pin, 4, label), CKR_OK);
  EXPECT_EQ(Slots().size(), 3U) << "the next free slot";
  EXPECT_EQ(Poll(), -1);
  list_->C_Finalize(nullptr);

  const ScopedVariable named("qix:Pkcs11:Readers", "softhsm*");
  Start("libsofthsm2.so");
  EXPECT_EQ(Slots(CK_TRUE).size(), 3U);
}

}  // namespace
}  // namespace qixx::testing
