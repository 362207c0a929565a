// The bridge in this process, over the soft card in its plain build, which knows nothing of the
// suite.
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <future>
#include <sstream>
#include <thread>
#include <tuple>

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

  /// Words, each a deed and the slot of the event then, which may take a while: "+5=4" inserts a
  /// card in reader 5, "-5" removes it, "x5" the reader, "." does nothing. Without "=" none is
  /// told.
  void Play(const char* script) {
    std::istringstream words(script);
    for (std::string word; words >> word;) {
      const std::size_t equals = word.find('=');
      const long told = equals == word.npos ? -1 : std::stol(word.substr(equals + 1));
      const int reader = word[0] == '.' ? 0 : std::stoi(word.substr(1));
      if (word[0] == '+') desktop_.InsertCard(reader);
      if (word[0] == '-') desktop_.RemoveCard(reader);
      if (word[0] == 'x') RemoveReader(reader);
      long slot = Poll();
      const auto hasEvent = [&] { return slot >= 0 || (slot = Poll()) >= 0; };
      EXPECT_TRUE(told < 0 || Eventually(hasEvent)) << word;
      EXPECT_EQ(slot, told) << word;
    }
  }

  /// Of one poll.
  CK_RV Answer() {
    CK_SLOT_ID slot = 0;
    return list_->C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr);
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
  RemoveReader(4);
  EXPECT_EQ(Slots(), (Numbers{1, 7}));
  AddReader(4, "Another");
  for (const int slot : {900000001, 4}) desktop_.InsertCard(slot);
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
  CK_SESSION_INFO info = {};
  const CK_SESSION_HANDLE session = Open(4);
  CK_ULONG count = 0;
  EXPECT_EQ(list_->C_GetSlotInfo(4, &slot), CKR_OK);
  EXPECT_EQ(slot.slotDescription[12], '5');
  EXPECT_EQ(list_->C_GetTokenInfo(4, &token), CKR_OK);
  EXPECT_EQ(list_->C_GetTokenInfo(1, &token), CKR_TOKEN_NOT_PRESENT);
  EXPECT_EQ(list_->C_GetMechanismList(4, nullptr, &count), CKR_OK);
  EXPECT_EQ(list_->C_GetSessionInfo(session, &info), CKR_OK);
  EXPECT_EQ(info.slotID, 4U);
  EXPECT_EQ(list_->C_CloseAllSessions(4), CKR_OK);
  EXPECT_EQ(list_->C_GetSessionInfo(session, &info), CKR_SESSION_HANDLE_INVALID);
  for (const CK_SLOT_ID unknown : {0U, 2U, 5U, 7U}) {
    EXPECT_EQ(list_->C_GetSlotInfo(unknown, &slot), CKR_SLOT_ID_INVALID) << unknown;
    EXPECT_EQ(list_->C_GetMechanismInfo(unknown, 0, nullptr), CKR_SLOT_ID_INVALID);
    EXPECT_EQ(list_->C_InitToken(unknown, nullptr, 0, nullptr), CKR_SLOT_ID_INVALID);
    EXPECT_EQ(list_->C_OpenSession(unknown, CKF_SERIAL_SESSION, nullptr, nullptr, &info.slotID),
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
    Play(". -7=4 +1=1");
    EXPECT_EQ(Slots(CK_TRUE), (Numbers{1}));
    Play("-1=1 +9=7 x9=7 .");
    list_->C_Finalize(nullptr);
  }
}

TEST_F(Bridge, TellsOfOneCardAtATime) {
  for (const char* const script :
       {"+1=1 +5 -5 +5 -1=1 .=4 +1 x5=4 .=1 -1=1 .", "+5=4 +1 -1 +1 -5=4 .=1 +5 x1=1 .=4 -5=4 ."}) {
    for (const int reader : {1, 5}) desktop_.AddReader(reader);
    Start(SOFTCARD_PLAIN);
    Play(script);
    list_->C_Finalize(nullptr);
  }
}

TEST_F(Bridge, BeginsWithTheCardThatIsListedFirst) {
  for (const int slot : {1, 5}) desktop_.InsertCard(slot);
  Start(SOFTCARD_PLAIN);
  EXPECT_EQ(Poll(), -1);
  EXPECT_EQ(Slots(CK_TRUE), (Numbers{1, 4}));
  Play("-1=1 .=4");
  desktop_.InsertCard(1);
  EXPECT_EQ(Function<pkcs11::ReinitializeFunction>("C_Reinitialize")(nullptr), CKR_OK);
  EXPECT_EQ(Slots(CK_TRUE), (Numbers{4, 1})) << "still the one that was told of";
  Play(". -5=4 -1");

  desktop_.InsertCard(5);
  EXPECT_EQ(Slots(CK_TRUE), (Numbers{4}));
  Play("-5=4 .");  // who saw it listed has to hear that it has gone
}

TEST_F(Bridge, WhatTheServiceDoesNotTakeAtStartKeepsNothingBack) {
  AddReader(5, "Virtual Slot 0\nflags=0x2");
  for (int slot = 100; slot <= 140; ++slot) desktop_.AddReader(slot);
  for (const int slot : {5, 140}) desktop_.InsertCard(slot);
  Start(SOFTCARD_PLAIN);
  Play(".=107 -5 +5 +1 -140=107 .=1");
}

TEST_F(Bridge, CardThatIsPassedOverKeepsNothingBack) {
  desktop_.AddReader(5);
  Start(SOFTCARD_PLAIN);
  const auto passOver = Function<void (*)(CK_SLOT_ID)>("QixPassOver");
  ASSERT_NE(passOver, nullptr);
  Play("+5=4 +1 .");
  for (const CK_SLOT_ID slot : {0UL, 1UL, 4UL}) passOver(slot);
  Play(".=1 . -5 +5 -1=1 .=4");  // another card in its place counts
  passOver(4);
  Play(". -5 .");
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
  for (const auto& [readers, ignore, counting] : rows) {
    SCOPED_TRACE(std::string("Readers=") + (readers == nullptr ? "" : readers));
    const ScopedVariable wanted("qix:Pkcs11:Readers", readers);
    const ScopedVariable ignored("qix:Pkcs11:Ignore", ignore);
    for (const int slot : {1, 2, 3}) desktop_.InsertCard(slot);
    Start(SOFTCARD_PLAIN);
    const auto slotCounts = Function<int (*)(CK_SLOT_ID)>("QixSlotCounts");
    EXPECT_EQ(slotCounts(10), -1);
    EXPECT_EQ(Slots(), (Numbers{1, 4, 7}));
    EXPECT_EQ(Slots(CK_TRUE), counting);
    for (const CK_SLOT_ID slot : {1U, 4U, 7U}) {
      EXPECT_EQ(list_->C_CloseSession(Open(slot)), CKR_OK) << "who names it can use it";
    }
    for (const int slot : {3, 2, 1}) desktop_.RemoveCard(slot);
    EXPECT_EQ(Poll(), counting.empty() ? -1 : static_cast<long>(counting.front()));
    EXPECT_EQ(Poll(), -1);
    const std::tuple<CK_SLOT_ID, const char*, const char*> cards[] = {
        {1, "+1=1 -1=1", "+1 -1"}, {4, "+2=4 -2=4", "+2 -2"}, {7, "+3=7 -3=7", "+3 -3"}};
    for (const auto& [number, told, silent] : cards) {
      const bool counts = std::ranges::find(counting, number) != counting.end();
      EXPECT_EQ(slotCounts(number), counts ? 1 : 0);
      Play(counts ? told : silent);
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
  desktop_.SetModuleFaults(eventless + "fail=C_GetSlotInfo:0x30");
  EXPECT_EQ(Poll(), 1) << "of which nothing can be read, that holds no token";
  desktop_.SetModuleFaults("");
  EXPECT_EQ(Poll(), 1) << "it can be read again";
  EXPECT_EQ(Slots(), (Numbers{1}));

  for (const auto& [faults, failure] :
       {std::pair<const char*, CK_RV>{"fail=C_GetSlotList:0x30", CKR_DEVICE_ERROR},
        {"throw=C_GetSlotList", CKR_GENERAL_ERROR},
        {"throw=C_GetSlotInfo", CKR_GENERAL_ERROR}}) {
    desktop_.RemoveCard(1);
    desktop_.SetModuleFaults(faults);
    for (int poll = 0; poll < 3; ++poll) EXPECT_EQ(Answer(), failure) << faults;
    desktop_.SetModuleFaults("");
    Play(".=1 +1=1");
  }
}

TEST_F(Bridge, ModuleThatSomebodyElseFinalises) {
  Start(SOFTCARD_PLAIN);
  CK_FUNCTION_LIST* module = nullptr;
  const auto obtain = reinterpret_cast<CK_C_GetFunctionList>(
      ::dlsym(::dlopen(SOFTCARD_PLAIN, RTLD_NOW | RTLD_LOCAL), "C_GetFunctionList"));
  ASSERT_EQ(obtain(&module), CKR_OK);
  EXPECT_EQ(module->C_Finalize(nullptr), CKR_OK);
  EXPECT_EQ(Answer(), CKR_CRYPTOKI_NOT_INITIALIZED);
  list_->C_Finalize(nullptr);
  EXPECT_EQ(module->C_Initialize(nullptr), CKR_OK);
  EXPECT_EQ(list_->C_Initialize(nullptr), CKR_OK);
  Play("+1=1");
  list_->C_Finalize(nullptr);
  EXPECT_EQ(module->C_Finalize(nullptr), CKR_OK) << "it is not the bridge's any more";
}

}  // namespace
}  // namespace qixx::testing
