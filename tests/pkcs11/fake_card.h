// A scripted card service: slots, their tokens and objects, as a PKCS#11 function list.
//
// There is one at a time, the list's functions reach it without context. A test makes a module
// hostile by putting a function of its own into the list.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "pkcs11/extended.h"
#include "pkcs11/wrapper.h"
#include "tests/pkcs11/fake_module.h"

namespace qixx::testing {

using FakeObject = std::map<CK_ATTRIBUTE_TYPE, std::string>;

struct FakeSlot {
  CK_SLOT_ID id = 1;
  std::string description = "Reader";
  CK_FLAGS flags = CKF_TOKEN_PRESENT | CKF_HW_SLOT;
  std::vector<FakeObject> objects = {};
};

template <typename Value>
std::string Raw(const Value& value) {
  return {reinterpret_cast<const char*>(&value), sizeof(value)};
}

class FakeCard {
 public:
  FakeCard() {
    current = this;
    CK_FUNCTION_LIST& list = memory.standard;
#define QIXX_REFUSE(name, parameters, arguments) \
  list.C_##name = [](auto...) -> CK_RV { return CKR_FUNCTION_FAILED; };
    QIXX_CK_FUNCTIONS(QIXX_REFUSE)
#undef QIXX_REFUSE
    list.C_Initialize = [](auto...) { return ++current->initialized, current->initializeResult; };
    list.C_Finalize = [](auto...) { return ++current->finalized, CKR_OK; };
    list.C_WaitForSlotEvent = [](auto...) { return current->eventResult; };
    list.C_GetSlotList = [](CK_BBOOL, CK_SLOT_ID* ids, CK_ULONG* count) {
      if (ids != nullptr && *count < current->slots.size()) return CKR_BUFFER_TOO_SMALL;
      for (const FakeSlot& slot : current->slots) {
        if (ids != nullptr) *ids++ = slot.id;
      }
      *count = current->slots.size();
      return CKR_OK;
    };
    list.C_GetSlotInfo = [](CK_SLOT_ID id, CK_SLOT_INFO* info) {
      FakeSlot* const slot = current->Find(id);
      if (slot == nullptr || slot->description.empty()) return CKR_DEVICE_ERROR;
      std::memset(info->slotDescription, ' ', sizeof(info->slotDescription));
      std::memcpy(info->slotDescription, slot->description.data(), slot->description.size());
      info->flags = slot->flags;
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
    list.C_FindObjectsInit = [](CK_ULONG session, CK_ATTRIBUTE* attributes, CK_ULONG count) {
      current->matches.clear();
      FakeSlot& slot = *current->Find(session);
      for (std::size_t i = 0; i < slot.objects.size(); ++i) {
        const bool all = std::all_of(attributes, attributes + count, [&](CK_ATTRIBUTE& asked) {
          return slot.objects[i][asked.type] ==
                 std::string_view(static_cast<char*>(asked.pValue), asked.ulValueLen);
        });
        if (all) current->matches.push_back(i + 1);
      }
      ++current->openSearches;
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
      FakeObject& source = current->Find(session)->objects.at(object - 1);
      CK_RV result = CKR_OK;
      for (CK_ATTRIBUTE& asked : std::span(attributes, count)) {
        const auto found = source.find(asked.type);
        if (found == source.end()) result = CKR_ATTRIBUTE_TYPE_INVALID;
        if (found == source.end()) continue;
        const bool fits = asked.ulValueLen >= found->second.size();
        if (asked.pValue != nullptr && !fits) result = CKR_BUFFER_TOO_SMALL;
        if (asked.pValue != nullptr && fits)
          found->second.copy(static_cast<char*>(asked.pValue), std::string::npos);
        asked.ulValueLen = found->second.size();
      }
      return result;
    };
    list.C_CreateObject = [](CK_ULONG session, CK_ATTRIBUTE* attributes, CK_ULONG count,
                             CK_ULONG* object) {
      FakeObject created;
      for (const CK_ATTRIBUTE& given : std::span(attributes, count)) {
        created[given.type] = {static_cast<char*>(given.pValue), given.ulValueLen};
      }
      current->Find(session)->objects.push_back(created);
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

  FakeSlot* Find(CK_SLOT_ID id) {
    const auto slot = std::find_if(slots.begin(), slots.end(),
                                   [id](const FakeSlot& other) { return other.id == id; });
    return slot == slots.end() ? nullptr : &*slot;
  }
  CK_FUNCTION_LIST& List() {
    return memory.standard;
  }

  static inline FakeCard* current = nullptr;
  ExtendedFunctionList memory = {};
  std::vector<FakeSlot> slots;
  CK_RV initializeResult = CKR_OK;
  CK_RV eventResult = CKR_NO_EVENT;
  int initialized = 0;
  int finalized = 0;
  int openSessions = 0;
  int openSearches = 0;
  std::vector<CK_OBJECT_HANDLE> matches;
};

/// A fake module that answers as told for as long as this lives.
class FakeModule {
 public:
  FakeModule(const char* path, CK_RV result, CK_FUNCTION_LIST_PTR list)
      : library_(OpenLibrary(path)) {
    const auto answer =
        reinterpret_cast<FakeModuleAnswerFunction>(FindSymbol(library_, "FakeModuleAnswer"));
    *answer() = {result, list};
  }
  ~FakeModule() { CloseLibrary(library_); }
  FakeModule(const FakeModule&) = delete;
  FakeModule& operator=(const FakeModule&) = delete;

 private:
  LibraryHandle library_;
};

}  // namespace qixx::testing
