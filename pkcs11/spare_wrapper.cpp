// spare: asked of this layer by the suite's design, built, called by nothing in this
// program.
#include <utility>

#include "config/store.h"
#include "pkcs11/function_call.h"
#include "pkcs11/wrapper.h"
#include "runtime/trace.h"

namespace qixx::pkcs11 {
namespace {

// Found on first use and shared by all wrappers.
ListCardsFunction listCards = nullptr;
AddExternalSlotFunction addExternalSlot = nullptr;
RemoveExternalSlotFunction removeExternalSlot = nullptr;

}  // namespace

bool CWrapperPkcs11::LoadLibraryFromConfig() {
  config::CConfig config;
  if (config.OpenAll(false) != config::ConfigResult::kOk) return false;
  if (auto path = config.GetString("Pkcs11", "Library", kMaxLibraryPath)) {
    libraryPath_ = std::move(path->text);
  }
  config.Close(true);
  return true;
}

CK_RV CWrapperPkcs11::Reinitialize(CK_VOID_PTR initArgs) {
  if (extended_) return CForwarderPkcs11::Reinitialize(initArgs);
  // Nothing was ever loaded, so there is nothing to finalise, to close and to take again: the line
  // tells of no initialisation, no finalisation and no close.
  Finalize(nullptr);
  Release();
  runtime::TraceWrite("WrapperPkcs11 - Reinitialize released (%d:%d:%d)", 0, 0, 0);
  Load(PathToLoad());
  return CKR_OK;
}

CK_RV CWrapperPkcs11::SetPIN(CK_SESSION_HANDLE session, CK_UTF8CHAR_PTR oldPin,
                             CK_ULONG oldPinLength, CK_UTF8CHAR_PTR newPin, CK_ULONG newPinLength,
                             std::uint64_t extra) {
  if (extra == kStandardSetPin) {
    return CForwarderPkcs11::SetPIN(session, oldPin, oldPinLength, newPin, newPinLength);
  }
  return SetPINEx(session, oldPin, oldPinLength, newPin, newPinLength, extra);
}

bool CWrapperPkcs11::HasNewEvent(std::uint64_t& lastSeen) {
  CK_SLOT_ID slot = 0;
  if (WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr) == CKR_OK) ++newEvents_;
  const std::uint64_t seen = newEvents_ + 1;
  const bool isNew = seen != lastSeen;
  lastSeen = seen;
  if (isNew) runtime::TraceWrite("WrapperPkcs11 - Has new event");
  return isNew;
}

// --- extension functions with a slot -----------------------------------------------------------

/// Null also where there are no slots.
#define QIXX_IN_SLOT(function) (extension_ == nullptr ? nullptr : extension_->function)
#define QIXX_CALL_EXTENSION(name, parameters, arguments)       \
  CK_RV CForwarderPkcs11::name parameters {                    \
    if (!HasFunctions()) return CKR_GENERAL_ERROR;             \
    const FunctionOf call("C_" #name, QIXX_IN_SLOT(C_##name)); \
    return call arguments;                                     \
  }
#define QIXX_CALL_AFTER_LOAD(name, parameters, arguments)      \
  CK_RV CForwarderPkcs11::name parameters {                    \
    if (!extended_) return CKR_FUNCTION_NOT_SUPPORTED;         \
    if (!HasFunctions()) return CKR_GENERAL_ERROR;             \
    const FunctionOf call("C_" #name, QIXX_IN_SLOT(C_##name)); \
    return call arguments;                                     \
  }
QIXX_CK_SLOTS_1_TO_6(QIXX_CALL_AFTER_LOAD)
QIXX_CK_SLOTS_8_TO_9(QIXX_CALL_AFTER_LOAD)
QIXX_CK_SLOTS_10_TO_11(QIXX_CALL_EXTENSION)
#undef QIXX_CALL_AFTER_LOAD
#undef QIXX_CALL_EXTENSION
#undef QIXX_IN_SLOT

// --- extension functions without a slot --------------------------------------------------------

template <typename Function>
bool CWrapperPkcs11::FindOnce(Function& cached, const char* name) {
  if (cached != nullptr) return true;
  std::optional<runtime::FoundLibrary> found = runtime::LoadLibrarySearch(PathToLoad());
  if (!found) return false;
  cached = found->library.FindOwnSymbol<Function>(name);
  // The reference stays for as long as the process, since the address does.
  (void)found->library.Release();
  return cached != nullptr;
}

CK_RV CWrapperPkcs11::ListCards(CK_ULONG flag, CK_VOID_PTR first, CK_VOID_PTR second) {
  if (!FindOnce(listCards, "C_ListCards")) return CKR_GENERAL_ERROR;
  return FunctionOf("C_ListCards", listCards)(static_cast<CK_BYTE>(flag), first, second);
}

CK_RV CWrapperPkcs11::AddExternalSlot(CK_ULONG first, CK_ULONG second, CK_ULONG third) {
  if (!FindOnce(addExternalSlot, "C_AddExternalSlot")) return CKR_GENERAL_ERROR;
  return FunctionOf("C_AddExternalSlot", addExternalSlot)(first, second, third);
}

CK_RV CWrapperPkcs11::RemoveExternalSlot(CK_ULONG first) {
  if (!extended_) return CKR_FUNCTION_NOT_SUPPORTED;
  if (!FindOnce(removeExternalSlot, "C_RemoveExternalSlot")) return CKR_GENERAL_ERROR;
  return FunctionOf("C_RemoveExternalSlot", removeExternalSlot)(first);
}

}  // namespace qixx::pkcs11
