#include "watch/card_reader.h"

#include <algorithm>
#include <atomic>
#include <bit>

#include "pkcs11/reader.h"
#include "pkcs11/wrapper.h"
#include "runtime/no_destructor.h"
#include "runtime/sync.h"
#include "watch/stop.h"

namespace qixx::watch {
namespace {

using pkcs11::CHelperPkcs11;
using pkcs11::Pkcs11;

class Pkcs11CardReader final : public CardReader {
 public:
  void Initialise() override {
    const runtime::CriticalScope hold(&lock_);
    InitialiseNow();
  }
  void Finalise() override {
    const runtime::CriticalScope hold(&lock_);
    eventDescriptor_ = kNoDescriptor;
    Pkcs11().Finalize(nullptr);
  }
  bool IsInitialised() override {
    const runtime::CriticalScope hold(&lock_);
    return Pkcs11().InitializeCount() != 0;
  }
  bool InitialiseAgain() override {
    const runtime::CriticalScope hold(&lock_);
    return Pkcs11().InitializeCount() == 0 && InitialiseNow();
  }

  /// The poll would search the disk for a missing library, so without one it is left out; that
  /// search is for InitialiseAgain.
  PolledEvent TakeEvent() override {
    const runtime::CriticalScope hold(&lock_);
    if (!IsLoaded()) return {};
    PolledEvent polled;
    CK_RV result = Poll(polled);
    if (result == CKR_CRYPTOKI_NOT_INITIALIZED && Pkcs11().InitializeCount() != 0) {
      // Somebody else in the process has finalised it: ours is over too.
      Forget();
      if (InitialiseNow()) result = Poll(polled);
      polled.initialisedAgain = result != CKR_CRYPTOKI_NOT_INITIALIZED;
      if (!polled.initialisedAgain) Forget();
    }
    if (result != CKR_OK && result != CKR_NO_EVENT) polled.failure = result;
    return polled;
  }
  int EventDescriptor() override { return eventDescriptor_; }
  CK_SLOT_ID FindSlotWithToken() override {
    const runtime::CriticalScope hold(&lock_);
    return CHelperPkcs11::FindWatchSlot(true);
  }
  std::vector<CK_SLOT_ID> SlotsWithToken() override {
    std::vector<CK_SLOT_ID> slots(kMaxSlots);
    CK_ULONG count = slots.size();
    const runtime::CriticalScope hold(&lock_);
    if (Pkcs11().GetSlotList(CK_TRUE, slots.data(), &count) != CKR_OK) return {};
    slots.resize(std::min<std::size_t>(count, slots.size()));
    return slots;
  }
  bool HasReader() override {
    CK_ULONG count = 0;
    const runtime::CriticalScope hold(&lock_);
    return Pkcs11().GetSlotList(CK_FALSE, nullptr, &count) == CKR_OK && count != 0;
  }
  bool ShowsToken(CK_SLOT_ID slot) override {
    const std::optional<CK_SLOT_INFO> info = SlotInfo(slot);
    return info && (info->flags & CKF_TOKEN_PRESENT) != 0;
  }
  bool IsTokenReadable(CK_SLOT_ID slot) override {
    CK_TOKEN_INFO info = {};
    const runtime::CriticalScope hold(&lock_);
    if (Pkcs11().GetTokenInfo(slot, &info) == CKR_OK) return true;
    Pkcs11().PassOver(slot);
    return false;
  }
  std::optional<SlotDescription> Description(CK_SLOT_ID slot) override {
    const std::optional<CK_SLOT_INFO> info = SlotInfo(slot);
    if (!info) return std::nullopt;
    return std::bit_cast<SlotDescription>(info->slotDescription);
  }

  std::vector<der::CertificatePtr> CollectCertificates() override {
    const runtime::CriticalScope hold(&lock_);
    return CHelperPkcs11::CollectCertificates({}, true);
  }
  bool HasCertificateOf(const std::string& subject, std::optional<CK_SLOT_ID> slot) override {
    std::array<pkcs11::CertificateEntry, 1> entries;
    const runtime::CriticalScope hold(&lock_);
    return CHelperPkcs11::GetCertificates(slot, {.subject = subject}, entries);
  }
  bool HoldsCertificate(CK_SLOT_ID slot, der::Bytes certificate) override {
    const runtime::CriticalScope hold(&lock_);
    return CHelperPkcs11::IsCertificatePresent(slot, certificate);
  }
  std::optional<std::string> TokenVariable(CK_SLOT_ID slot, std::string_view name) override {
    const runtime::CriticalScope hold(&lock_);
    return CHelperPkcs11::GetTokenVariable(slot, false, name);
  }

 private:
  bool InitialiseNow() {
    const CK_RV result = Pkcs11().Initialize(nullptr);
    // What the library does with the signals must not keep the service from ending.
    TakeStopSignals();
    if (result != CKR_OK) return false;
    eventDescriptor_ = Pkcs11().EventDescriptor();
    return true;
  }
  void Forget() {
    eventDescriptor_ = kNoDescriptor;
    while (Pkcs11().InitializeCount() != 0) Pkcs11().Finalize(nullptr);
  }
  static CK_RV Poll(PolledEvent& polled) {
    CK_SLOT_ID slot = kNoSlot;
    const CK_RV result = Pkcs11().WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr);
    if (result == CKR_OK) polled.slot = slot;
    return result;
  }
  static bool IsLoaded() {
    CK_FUNCTION_LIST_PTR functions = nullptr;
    return Pkcs11().InitializeCount() != 0 ||
           Pkcs11().GetFunctionList(&functions) != CKR_FUNCTION_FAILED;
  }
  std::optional<CK_SLOT_INFO> SlotInfo(CK_SLOT_ID slot) {
    CK_SLOT_INFO info = {};
    const runtime::CriticalScope hold(&lock_);
    if (Pkcs11().GetSlotInfo(slot, &info) != CKR_OK) return std::nullopt;
    return info;
  }

  runtime::CCritical lock_;
  std::atomic<int> eventDescriptor_{kNoDescriptor};
};

}  // namespace

CardReader& SystemCardReader() {
  // Never destroyed: a command on a thread of its own may use the card while the process ends.
  static runtime::NoDestructor<Pkcs11CardReader> reader;
  return *reader;
}

}  // namespace qixx::watch
