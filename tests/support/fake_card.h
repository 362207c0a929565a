// A scripted card service: slots, their tokens and objects, as a PKCS#11 function list.
//
// There is one at a time, the list's functions reach it without context. A test makes a module
// hostile by putting a function of its own into the list.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "pkcs11/extended.h"
#include "pkcs11/wrapper.h"

namespace qixx::testing {

using FakeObject = std::map<CK_ATTRIBUTE_TYPE, std::string>;

template <typename Value>
std::string Raw(const Value& value) {
  return {reinterpret_cast<const char*>(&value), sizeof(value)};
}

inline FakeObject CertificateObject(const std::string& value) {
  return {{CKA_CLASS, Raw(CKO_CERTIFICATE)},
          {CKA_CERTIFICATE_TYPE, Raw(CKC_X_509)},
          {CKA_TOKEN, Raw(CK_TRUE)},
          {CKA_MODIFIABLE, Raw(CK_TRUE)},
          {CKA_LABEL, "label"},
          {CKA_ID, "id"},
          {CKA_VALUE, value},
          {pkcs11::kSuiteAttribute, std::string(8, '\0')}};
}

struct FakeSlot {
  CK_SLOT_ID id = 1;
  std::string description = "Reader";
  CK_FLAGS flags = CKF_TOKEN_PRESENT | CKF_HW_SLOT;
  std::vector<FakeObject> objects = {};
};

class FakeCard {
 public:
  FakeCard() {
    current = this;
    CK_FUNCTION_LIST& list = memory.standard;
    list.C_Initialize = list.C_Finalize = [](auto...) { return CKR_OK; };
    list.C_GetSlotList = [](CK_BBOOL, CK_SLOT_ID* ids, CK_ULONG* count) {
      const std::size_t places = std::exchange(*count, current->slots.size());
      if (ids == nullptr) return CKR_OK;
      EXPECT_EQ(places, *count) << "as many as there are slots";
      std::ranges::transform(current->slots, ids, &FakeSlot::id);
      return CKR_OK;
    };
    list.C_GetSlotInfo = [](CK_SLOT_ID id, CK_SLOT_INFO* info) {
      const FakeSlot* const slot = current->Find(id);
      if (slot == nullptr) return CKR_SLOT_ID_INVALID;
      *info = {};
      info->flags = slot->flags;
      slot->description.copy(reinterpret_cast<char*>(info->slotDescription), 64);
      return CKR_OK;
    };
    list.C_OpenSession = [](CK_SLOT_ID id, CK_FLAGS flags, void*, CK_NOTIFY, CK_ULONG* session) {
      if (current->Find(id) == nullptr) return CKR_SLOT_ID_INVALID;
      EXPECT_EQ(flags, CKF_SERIAL_SESSION | CKF_RW_SESSION);
      ++current->openSessions;
      *session = id;
      return CKR_OK;
    };
    list.C_CloseSession = [](CK_ULONG) { return --current->openSessions, CKR_OK; };
    list.C_FindObjectsInit = [](CK_ULONG, CK_ATTRIBUTE* wanted, CK_ULONG count) {
      ++current->openSearches;
      current->sought.clear();
      for (const CK_ATTRIBUTE& given : std::span(wanted, count)) {
        const char* const value = static_cast<const char*>(given.pValue);
        current->sought[given.type].assign(value, given.ulValueLen);
      }
      current->searched = 0;
      return CKR_OK;
    };
    list.C_FindObjects = [](CK_ULONG session, CK_ULONG* object, CK_ULONG, CK_ULONG* count) {
      const std::vector<FakeObject>& objects = current->Find(session)->objects;
      for (*count = 0; *count == 0 && current->searched < objects.size();) {
        *count = std::ranges::includes(objects[current->searched++], current->sought) ? 1 : 0;
        *object = current->searched;
      }
      return CKR_OK;
    };
    list.C_FindObjectsFinal = [](CK_ULONG) { return --current->openSearches, CKR_OK; };
    list.C_GetAttributeValue = [](auto session, auto object, auto attributes, CK_ULONG count) {
      const FakeObject& held = current->Find(session)->objects.at(object - 1);
      for (CK_ATTRIBUTE& wanted : std::span(attributes, count)) {
        if (!held.contains(wanted.type)) return CKR_ATTRIBUTE_TYPE_INVALID;
        const std::string& value = held.at(wanted.type);
        const CK_ULONG room = std::exchange(wanted.ulValueLen, value.size());
        if (wanted.pValue == nullptr) continue;
        if (room < value.size()) return CKR_BUFFER_TOO_SMALL;
        value.copy(static_cast<char*>(wanted.pValue), room);
        wanted.ulValueLen += current->claimedTooMuch;
      }
      return CKR_OK;
    };
  }
  ~FakeCard() {
    EXPECT_EQ(std::pair(openSessions, openSearches), std::pair(0, 0));
    current = nullptr;
  }
  FakeCard(const FakeCard&) = delete;

  CK_FUNCTION_LIST& List() { return memory.standard; }

  static inline FakeCard* current = nullptr;
  pkcs11::ExtendedFunctionList memory = {};
  std::vector<FakeSlot> slots;
  int openSessions = 0;
  int openSearches = 0;
  /// How much longer each attribute is said to be than what was written.
  CK_ULONG claimedTooMuch = 0;

 private:
  FakeSlot* Find(CK_SLOT_ID id) {
    const auto slot = std::ranges::find(slots, id, &FakeSlot::id);
    return slot == slots.end() ? nullptr : &*slot;
  }

  // The search, of which there is one at a time.
  FakeObject sought;
  std::size_t searched = 0;
};

/// Has a fake module answer as told from now on; it stays loaded.
struct FakeModule {
  FakeModule(const char* path, CK_RV result, CK_FUNCTION_LIST_PTR list) {
    using Answer = void (*)(CK_RV, CK_FUNCTION_LIST_PTR);
    runtime::SharedLibrary module = runtime::OpenLibrary(std::string(path));
    module.FindSymbol<Answer>("FakeModuleAnswer")(result, list);
    static_cast<void>(module.Release());
  }
};

}  // namespace qixx::testing
