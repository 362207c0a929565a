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
#include <string_view>
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
          {kSuiteAttribute, std::string(8, '\0')}};
}

struct FakeSlot {
  CK_SLOT_ID id = 1;
  std::string description = "Reader";  ///< empty for a slot that cannot be asked
  CK_FLAGS flags = CKF_TOKEN_PRESENT | CKF_HW_SLOT;
  std::vector<FakeObject> objects = {};
};

class FakeCard {
 public:
  FakeCard() {
    current = this;
    CK_FUNCTION_LIST& list = memory.standard;
#define QIXX_REFUSE(name, parameters, arguments) \
  list.C_##name = [](auto...) -> CK_RV { return CKR_FUNCTION_FAILED; };
    QIXX_CK_FUNCTIONS(QIXX_REFUSE)
#undef QIXX_REFUSE
    list.C_Initialize = [](auto...) { return CKR_OK; };
    list.C_Finalize = [](auto...) { return ++current->finalized, CKR_OK; };
    list.C_WaitForSlotEvent = [](auto...) { return CKR_NO_EVENT; };
    list.C_GetSlotList = [](CK_BBOOL, CK_SLOT_ID* ids, CK_ULONG* count) {
      *count = current->slots.size();
      for (const FakeSlot& slot : current->slots) {
        if (ids != nullptr) *ids++ = slot.id;
      }
      return CKR_OK;
    };
    list.C_GetSlotInfo = [](CK_SLOT_ID id, CK_SLOT_INFO* info) {
      const FakeSlot* const slot = current->Find(id);
      if (slot == nullptr || slot->description.empty()) return CKR_DEVICE_ERROR;
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
    list.C_FindObjectsInit = [](CK_ULONG session, CK_ATTRIBUTE* wanted, CK_ULONG count) {
      ++current->openSearches;
      current->matches.clear();
      CK_OBJECT_HANDLE handle = 0;
      for (FakeObject object : current->Find(session)->objects) {
        ++handle;
        const auto has = [&object](const CK_ATTRIBUTE& attribute) {
          return object[attribute.type] == TextOf(attribute);
        };
        if (std::all_of(wanted, wanted + count, has)) current->matches.push_back(handle);
      }
      return CKR_OK;
    };
    list.C_FindObjects = [](CK_ULONG, CK_ULONG* objects, CK_ULONG, CK_ULONG* count) {
      *count = current->matches.empty() ? 0 : 1;
      if (*count == 0) return CKR_OK;
      *objects = current->matches.front();
      current->matches.erase(current->matches.begin());
      return CKR_OK;
    };
    list.C_FindObjectsFinal = [](CK_ULONG) { return --current->openSearches, CKR_OK; };
    list.C_GetAttributeValue = [](CK_ULONG session, CK_ULONG object, CK_ATTRIBUTE* attributes,
                                  CK_ULONG count) {
      const FakeObject& held = current->Find(session)->objects.at(object - 1);
      for (CK_ATTRIBUTE& wanted : std::span(attributes, count)) {
        if (!held.contains(wanted.type)) return CKR_ATTRIBUTE_TYPE_INVALID;
        const std::string& value = held.at(wanted.type);
        const CK_ULONG room = std::exchange(wanted.ulValueLen, value.size());
        if (wanted.pValue == nullptr) continue;
        if (room < value.size()) return CKR_BUFFER_TOO_SMALL;
        value.copy(static_cast<char*>(wanted.pValue), room);
      }
      return CKR_OK;
    };
    list.C_CreateObject = [](CK_ULONG session, CK_ATTRIBUTE* attributes, CK_ULONG count,
                             CK_ULONG* object) {
      FakeObject made;
      for (const CK_ATTRIBUTE& given : std::span(attributes, count))
        made[given.type] = TextOf(given);
      current->Find(session)->objects.push_back(made);
      *object = current->Find(session)->objects.size();
      return CKR_OK;
    };
  }
  ~FakeCard() {
    EXPECT_EQ(openSessions, 0);
    EXPECT_EQ(openSearches, 0);
    current = nullptr;
  }
  FakeCard(const FakeCard&) = delete;
  FakeCard& operator=(const FakeCard&) = delete;

  CK_FUNCTION_LIST& List() {
    return memory.standard;
  }

  static inline FakeCard* current = nullptr;
  ExtendedFunctionList memory = {};
  std::vector<FakeSlot> slots;
  int finalized = 0;
  int openSessions = 0;
  int openSearches = 0;

 private:
  static std::string_view TextOf(const CK_ATTRIBUTE& attribute) {
    return {static_cast<const char*>(attribute.pValue), attribute.ulValueLen};
  }
  FakeSlot* Find(CK_SLOT_ID id) {
    const auto slot = std::ranges::find(slots, id, &FakeSlot::id);
    return slot == slots.end() ? nullptr : &*slot;
  }

  std::vector<CK_OBJECT_HANDLE> matches;
};

/// A fake module that answers as told for as long as this lives.
class FakeModule {
 public:
  FakeModule(const char* path, CK_RV result, CK_FUNCTION_LIST_PTR list)
      : library_(OpenLibrary(path)) {
    reinterpret_cast<void (*)(CK_RV, CK_FUNCTION_LIST_PTR)>(
        FindSymbol(library_, "FakeModuleAnswer"))(result, list);
  }
  ~FakeModule() { CloseLibrary(library_); }
  FakeModule(const FakeModule&) = delete;
  FakeModule& operator=(const FakeModule&) = delete;

 private:
  LibraryHandle library_;
};

}  // namespace qixx::testing
