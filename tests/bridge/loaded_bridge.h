// The bridge in this process, over the soft card in its plain build, which knows nothing of the
// suite. The readers are those of a desktop, of which reader 1 is there.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <filesystem>
#include <string>
#include <vector>

#include "pkcs11/cryptoki.h"
#include "tests/end_to_end/desktop.h"
#include "tests/support/environment.h"

namespace qixx::testing {

class LoadedBridge : public ::testing::Test {
 protected:
  using Numbers = std::vector<CK_ULONG>;
  static constexpr auto kNoEvent = -static_cast<long>(CKR_NO_EVENT);

  ~LoadedBridge() override {
    if (list_ != nullptr) list_->C_Finalize(nullptr);
  }

  /// The bridge over `module`; a copy of its own each time, since it keeps its numbers as long as
  /// the process.
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

  Numbers Slots(CK_BBOOL withToken = CK_FALSE) {
    CK_ULONG count = 0;
    EXPECT_EQ(list_->C_GetSlotList(withToken, nullptr, &count), CKR_OK);
    count += 4;  // cards and readers may come between the two calls
    Numbers slots(count);
    EXPECT_EQ(list_->C_GetSlotList(withToken, slots.data(), &count), CKR_OK);
    slots.resize(count);
    return slots;
  }
  /// The slot of the next event; minus the answer when there is none.
  long Poll() {
    CK_SLOT_ID slot = 0;
    const CK_RV result = list_->C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr);
    return result == CKR_OK ? static_cast<long>(slot) : -static_cast<long>(result);
  }
  CK_SESSION_HANDLE Open(CK_SLOT_ID slot) {
    CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
    const CK_FLAGS flags = CKF_RW_SESSION | CKF_SERIAL_SESSION;
    EXPECT_EQ(list_->C_OpenSession(slot, flags, nullptr, nullptr, &session), CKR_OK);
    return session;
  }

  void NameReader(int slot, const std::string& name) const {
    desktop_.Home().Write("readers/" + std::to_string(slot) + "/slot", "description=" + name);
  }

  /// Polls until the next event, which may take a while, is one of this slot.
  [[nodiscard]] bool Tells(long slot) {
    long told = -1;
    return Eventually([&] { return (told = Poll()) >= 0; }) && told == slot;
  }
  /// As the service asks behind an event.
  [[nodiscard]] bool ShowsCard(CK_SLOT_ID slot = 1) {
    CK_SLOT_INFO info = {};
    EXPECT_EQ(list_->C_GetSlotInfo(slot, &info), CKR_OK);
    return (info.flags & CKF_TOKEN_PRESENT) != 0;
  }
  int Descriptor() { return Function<int (*)()>("QixEventDescriptor")(); }
  /// Whether the descriptor is readable, or becomes so within this time.
  [[nodiscard]] bool IsReadable(int milliseconds = 15'000) {
    pollfd waited = {Descriptor(), POLLIN, 0};
    return ::poll(&waited, 1, milliseconds) == 1;
  }
  /// The last poll has told all, and nothing came within this time.
  [[nodiscard]] bool IsQuiet(int milliseconds = 0) {
    return Eventually([=, this] { return Poll() == kNoEvent && !IsReadable(milliseconds); });
  }

  const TemporaryFolder folder_;
  const Desktop desktop_;
  void* library_ = nullptr;
  CK_FUNCTION_LIST* list_ = nullptr;
  std::string path_;  ///< of the bridge's copy

 private:
  const ScopedVariable home_{"HOME", folder_.Path().c_str()};
  const ScopedVariable module_{"qix:Pkcs11:Module", nullptr};
  const ScopedVariable readers_{"QIXX_SOFTCARD", desktop_.Path("readers").c_str()};
  int copies_ = 0;
};

}  // namespace qixx::testing
