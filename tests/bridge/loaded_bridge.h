// The bridge in this process, over the soft card in its plain build, which knows nothing of the
// suite. The readers are those of a desktop, of which reader 1 is there.
#pragma once

#include <poll.h>

#include <filesystem>
#include <string>

#include "tests/end_to_end/desktop.h"
#include "tests/support/loaded_module.h"

namespace qixx::testing {

class LoadedBridge : public LoadedModule {
 protected:
  /// The bridge over `module`; a copy of its own each time, since it keeps its numbers as long as
  /// the process.
  void Load(const std::string& module) override {
    ::setenv("qix:Pkcs11:Module", module.c_str(), 1);
    path_ = folder_.Path("bridge" + std::to_string(++copies_) + ".so");
    std::filesystem::copy_file(BRIDGE, path_);
    LoadedModule::Load(path_);
  }
  void NameReader(int slot, const std::string& name) const {
    desktop_.Home().Write("readers/" + std::to_string(slot) + "/slot", "description=" + name);
  }
  void RemoveReader(int slot) const {
    std::filesystem::remove_all(desktop_.Path("readers/" + std::to_string(slot)));
  }

  /// Of one poll.
  CK_RV Answer() {
    CK_SLOT_ID slot = 0;
    return list_->C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr);
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
    return Eventually([=, this] { return Poll() == -1 && !IsReadable(milliseconds); });
  }

  const Desktop desktop_;
  std::string path_;  ///< of the bridge's copy

 private:
  const ScopedVariable home_{"HOME", folder_.Path().c_str()};
  const ScopedVariable module_{"qix:Pkcs11:Module", nullptr};
  const ScopedVariable readers_{"QIXX_SOFTCARD", desktop_.Path("readers").c_str()};
  int copies_ = 0;
};

}  // namespace qixx::testing
