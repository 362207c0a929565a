// The bridge in this process, over a module of choice.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "pkcs11/cryptoki.h"
#include "tests/support/environment.h"
#include "tests/support/temporary_folder.h"

namespace qixx::testing {

class LoadedBridge : public ::testing::Test {
 protected:
  ~LoadedBridge() override {
    if (list_ != nullptr) list_->C_Finalize(nullptr);
  }

  /// A copy of its own each time, since a bridge keeps its numbers as long as the process.
  void Load(const std::string& module) {
    ::setenv("qix:Pkcs11:Module", module.c_str(), 1);
    path_ = folder_.Path("bridge" + std::to_string(++copies_) + ".so");
    std::filesystem::copy_file(BRIDGE, path_);
    library_ = ::dlopen(path_.c_str(), RTLD_NOW | RTLD_LOCAL);
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

  std::vector<CK_SLOT_ID> Slots(CK_BBOOL withToken = CK_FALSE) {
    CK_ULONG count = 0;
    EXPECT_EQ(list_->C_GetSlotList(withToken, nullptr, &count), CKR_OK);
    std::vector<CK_SLOT_ID> slots(count);
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
  bool ShowsToken(CK_SLOT_ID slot) {
    CK_SLOT_INFO info = {};
    EXPECT_EQ(list_->C_GetSlotInfo(slot, &info), CKR_OK) << slot;
    return (info.flags & CKF_TOKEN_PRESENT) != 0;
  }
  CK_SESSION_HANDLE Open(CK_SLOT_ID slot, CK_FLAGS flags = CKF_RW_SESSION) {
    CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
    EXPECT_EQ(list_->C_OpenSession(slot, flags | CKF_SERIAL_SESSION, nullptr, nullptr, &session),
              CKR_OK);
    return session;
  }

  const TemporaryFolder folder_;
  const ScopedVariable home_{"HOME", folder_.Path().c_str()};
  const ScopedVariable module_{"qix:Pkcs11:Module", nullptr};
  /// The machine's own card readers stay out of it.
  const ScopedVariable noReaders_{"PCSCLITE_CSOCK_NAME", folder_.Path("none").c_str()};
  std::string path_;
  int copies_ = 0;
  void* library_ = nullptr;
  CK_FUNCTION_LIST* list_ = nullptr;
};

}  // namespace qixx::testing
