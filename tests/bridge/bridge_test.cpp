#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <sstream>

#include "tests/bridge/loaded_bridge.h"

namespace qixx::testing {
namespace {

class Bridge : public LoadedBridge {
 protected:
  /// Words, each a deed of `Do`, "=" and the slot of the event that the polls behind it tell, or
  /// both: "+5=4" inserts a card in reader 5; after "-5=" nothing is told.
  void Play(const std::string& script) {
    std::istringstream words(script);
    for (std::string word; words >> word;) {
      SCOPED_TRACE(::testing::Message() << word << " in " << script);
      const std::size_t equals = std::min(word.find('='), word.size());
      if (equals != 0) Do(word[0], word.substr(1, equals - 1));
      if (equals == word.size()) continue;
      const std::string slot = word.substr(equals + 1);
      EXPECT_TRUE(slot.empty() ? Poll() == kNoEvent : Tells(std::stol(slot)));
    }
  }
  void Do(char deed, const std::string& about) {
    const int number = about.empty() ? 0 : std::stoi(about);
    const auto slot = static_cast<CK_SLOT_ID>(number);
    if (deed == '+') desktop_.InsertCard(number);
    if (deed == '-') desktop_.RemoveCard(number);
    if (deed == 'n') desktop_.AddReader(number);
    if (deed == 'x') std::filesystem::remove_all(desktop_.Path("readers/" + about));
    if (deed == 'v') NameReader(number, "Virtual Slot 0\nflags=0x2");
    if (deed == 'f') NameReader(number, "Token in software\nflags=0");
    if (deed == 's') Start(SOFTCARD_PLAIN);
    if (deed == 'p') Function<void (*)(CK_SLOT_ID)>("QixPassOver")(slot);
    if (deed == 'o') list_->C_CloseSession(Open(slot));  // who names it can use it
    if (deed == 'e') list_->C_Finalize(nullptr);
    if (deed == 'b') list_->C_Initialize(nullptr);
    if (deed == '?') {
      EXPECT_EQ(TextOf(Slots(CK_TRUE)), about) << "these have a card";
    } else if (deed == 'c') {
      Numbers counting = Slots();
      const auto counts = Function<int (*)(CK_SLOT_ID)>("QixSlotCounts");
      std::erase_if(counting, [counts](CK_SLOT_ID known) { return counts(known) == 0; });
      EXPECT_EQ(TextOf(counting), about) << "these count";
    }
  }
  static std::string TextOf(const Numbers& slots) {
    std::string text;
    for (const CK_ULONG slot : slots) text += (text.empty() ? "" : ",") + std::to_string(slot);
    return text;
  }

  /// The machine's own card readers stay out of it.
  const ScopedVariable noReaders_{"PCSCLITE_CSOCK_NAME", folder_.Path("none").c_str()};
};

TEST_F(Bridge, NumbersReadersForTheService) {
  Play("x1 n0 n4 n900000001 s");
  EXPECT_EQ(Slots(), (Numbers{1, 4, 7}));
  Play("x4");
  EXPECT_EQ(Slots(), (Numbers{1, 7}));
  NameReader(4, "Another");
  Play("+900000001 +4 ?10,7");  // an id is used anew, not its number
  CK_SLOT_INFO info = {};
  EXPECT_EQ(list_->C_GetSlotInfo(4, &info), CKR_SLOT_ID_INVALID);
  EXPECT_EQ(list_->C_GetSlotInfo(10, &info), CKR_OK);
  EXPECT_EQ(info.slotDescription[0], 'A');
  NameReader(3, "Soft reader 4");
  EXPECT_EQ(Slots(), (Numbers{1, 4, 10, 7})) << "back, under another id";
}

struct Row {
  const char* name;
  const char* script;
  const char* faults = "";        ///< of the module
  const char* readers = nullptr;  ///< the entry `Readers`
  const char* ignore = nullptr;   ///< the entry `Ignore`
};

class BridgeEvents : public Bridge, public ::testing::WithParamInterface<Row> {};

TEST_P(BridgeEvents, AreTold) {
  desktop_.SetModuleFaults(GetParam().faults);
  const ScopedVariable wanted("qix:Pkcs11:Readers", GetParam().readers);
  const ScopedVariable ignored("qix:Pkcs11:Ignore", GetParam().ignore);
  Play(GetParam().script);
}

constexpr const char* kAnyModule = "+7 s = -7=4 +1=1 ?1 -1=1 +9=7 x9=7 =";

INSTANTIATE_TEST_SUITE_P(
    All, BridgeEvents,
    ::testing::Values(
        Row{"OfAModuleWithEvents", kAnyModule},
        Row{"OfOneWithout", kAnyModule, "fail=C_WaitForSlotEvent:0x54"},
        Row{"OfOneThatKeepsItsEventsBack", kAnyModule, "fail=C_WaitForSlotEvent:0x8"},
        Row{"OfOneCardAtATime", "n5 s +1=1 +5= -5= +5= -1=1 =4 +1= x5=4 =1 -1=1 ="},
        Row{"OfTheCardThatIsListedFirst", "+1 +5 s = ?1,4 -1=1 =4 +1 e b ?4,1 = -5=4 -1="},
        Row{"OfACardThatWentBehindTheList", "n5 s +5 ?4 -5=4 ="},
        Row{"OfAnotherThanThePassedOver",
            "n5 s +5=4 +1= = p0 p1 p4 =1 = -5= +5= -1=1 =4 p4 = -5= ="},
        // Reader 2 holds what cannot be pulled.
        Row{"OfWhatIsRemovable", "f2 +1 +2 +3 s ?1,7 c1,7 o1 o4 o7 -2 -1=1 =7 -3=7 +2= -2= +3=7"},
        Row{"OfNoneThatIsIgnored", "f2 +1 +2 +3 s ?7 c7 o1 o4 o7 -2 -1 = -3=7 +1= +2= +3=7", "",
            nullptr, "soft READER 1||none"},
        Row{"OfNoneThatIsWantedAndIgnored", "f2 +1 +2 +3 s ?4 c4 o1 o7 -1 -3 = -2=4 +1= +3= +2=4",
            "", " token* | | *3 ", "?oft*"}),
    [](const auto& row) { return row.param.name; });

TEST_F(Bridge, WhatTheServiceDoesNotTakeAtStartKeepsNothingBack) {
  for (int slot = 100; slot <= 140; ++slot) desktop_.AddReader(slot);
  Play("v5 +5 +140 s =107 -5= +5= +1= -140=107 =1");
}

TEST_F(Bridge, VariablesAreKeptOnTheFirstToken) {
  Play("+2 s");
  const auto set = Function<CK_RV (*)(const char*, const char*)>("C_SetVariable");
  const auto get = Function<CK_RV (*)(const char*, char*, CK_ULONG*)>("C_GetVariable");
  std::array<char, 8> value{};
  const auto read = [&](const char* name) {
    CK_ULONG length = value.size();
    return get(name, value.data(), &length);
  };
  EXPECT_EQ(set("ActiveLogonUPN", "ann"), CKR_OK);
  EXPECT_EQ(set("b", "two word"), CKR_OK);
  EXPECT_EQ(set("ActiveLogonUPN", "bob"), CKR_OK);
  EXPECT_EQ(read("b"), CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ(set("b", nullptr), CKR_OK);
  EXPECT_EQ(read("b"), CKR_DATA_INVALID);
  EXPECT_EQ(read("ActiveLogonUPN"), CKR_OK);
  EXPECT_STREQ(value.data(), "bob");
  desktop_.SetModuleFaults("fail=C_GetAttributeValue:0x30");
  EXPECT_EQ(set("x", "y"), CKR_DEVICE_ERROR) << "what cannot be read is not written over";
  desktop_.SetModuleFaults("");
  EXPECT_EQ(read("ActiveLogonUPN"), CKR_OK);
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
  ::setenv("qix:Pkcs11:Module", SOFTCARD_PLAIN, 1);
  EXPECT_EQ(list_->C_Initialize(nullptr), CKR_OK) << "it can be mended while the process runs";
}

TEST_F(Bridge, ModuleThatClaimsTooManySlots) {
  const ScopedVariable below("QIXX_TORTURE_MODULE", SOFTCARD_PLAIN);
  const std::string order = folder_.Write("order", "C_GetSlotList 1 99 lie:huge");
  const ScopedVariable orders("QIXX_TORTURE_ORDER", order.c_str());
  Start(MISBEHAVING_MODULE);
  EXPECT_EQ(Slots(), Numbers()) << "the first one's id is a lie, too";
  std::filesystem::remove(order);
  EXPECT_EQ(Slots(), Numbers{1});
}

TEST_F(Bridge, ModuleThatAnswersBadly) {
  Play("+1 s");
  desktop_.SetModuleFaults("fail=C_WaitForSlotEvent:0x54\nfail=C_GetSlotInfo:0x30");
  EXPECT_EQ(Poll(), 1) << "of which nothing can be read, that holds no token";
  desktop_.SetModuleFaults("");
  EXPECT_EQ(Poll(), 1) << "it can be read again";
  EXPECT_EQ(Slots(), (Numbers{1}));

  for (const auto& [faults, failure] :
       {std::pair<const char*, long>{"fail=C_GetSlotList:0x30", CKR_DEVICE_ERROR},
        {"throw=C_GetSlotList", CKR_GENERAL_ERROR},
        {"throw=C_GetSlotInfo", CKR_GENERAL_ERROR}}) {
    desktop_.RemoveCard(1);
    desktop_.SetModuleFaults(faults);
    for (int poll = 0; poll < 3; ++poll) EXPECT_EQ(Poll(), -failure) << faults;
    desktop_.SetModuleFaults("");
    Play("=1 +1=1");
  }
}

}  // namespace
}  // namespace qixx::testing
