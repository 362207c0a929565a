// A PKCS#11 module in this process, called through its function list.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "pkcs11/cryptoki.h"
#include "tests/support/environment.h"
#include "tests/support/temporary_folder.h"

namespace qixx::testing {

class LoadedModule : public ::testing::Test {
 protected:
  using Numbers = std::vector<CK_ULONG>;

  ~LoadedModule() override {
    if (list_ != nullptr) list_->C_Finalize(nullptr);
  }

  virtual void Load(const std::string& module) {
    library_ = ::dlopen(module.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library_, nullptr) << ::dlerror();
    ASSERT_EQ(Function<CK_C_GetFunctionList>("C_GetFunctionList")(&list_), CKR_OK);
  }
  void Start(const std::string& module) {
    Load(module);
    ASSERT_EQ(list_->C_Initialize(nullptr), CKR_OK);
  }
  template <typename Type>
  Type Function(const std::string& name) {
    return reinterpret_cast<Type>(::dlsym(library_, name.c_str()));
  }

  Numbers Slots(CK_BBOOL withToken = CK_FALSE) {
    CK_ULONG count = 0;
    EXPECT_EQ(list_->C_GetSlotList(withToken, nullptr, &count), CKR_OK);
    count += 4;  // cards and readers may come between the two calls
    Numbers slots(count);
    EXPECT_EQ(list_->C_GetSlotList(withToken, slots.data(), &count), CKR_OK);
    slots.resize(count);
    return slots;
  }
  /// The slot of the next event, -1 for none.
  long Poll() {
    CK_SLOT_ID slot = 0;
    const CK_RV result = list_->C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr);
    EXPECT_TRUE(result == CKR_OK || result == CKR_NO_EVENT) << result;
    return result == CKR_OK ? static_cast<long>(slot) : -1;
  }
  CK_SESSION_HANDLE Open(CK_SLOT_ID slot) {
    CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
    const CK_FLAGS flags = CKF_RW_SESSION | CKF_SERIAL_SESSION;
    EXPECT_EQ(list_->C_OpenSession(slot, flags, nullptr, nullptr, &session), CKR_OK);
    return session;
  }
  /// At most eight objects.
  Numbers Search(CK_SESSION_HANDLE session) {
    Numbers found(8);
    CK_ULONG count = 0;
    EXPECT_EQ(list_->C_FindObjectsInit(session, nullptr, 0), CKR_OK);
    EXPECT_EQ(list_->C_FindObjects(session, found.data(), found.size(), &count), CKR_OK);
    EXPECT_EQ(list_->C_FindObjectsFinal(session), CKR_OK);
    found.resize(count);
    return found;
  }

  const TemporaryFolder folder_;
  void* library_ = nullptr;
  CK_FUNCTION_LIST* list_ = nullptr;
};

}  // namespace qixx::testing
