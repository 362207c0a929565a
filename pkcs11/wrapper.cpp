#include "pkcs11/wrapper.h"

#include <dlfcn.h>

#include <bit>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <span>

#include "config/store.h"
#include "runtime/files.h"
#include "runtime/trace.h"

namespace qixx::pkcs11 {

namespace {

/// How often at most Reinitialize gives the library back.
constexpr std::uint64_t kMaxReleases = 11;

/// The handle that stands for a library inside the program.
runtime::LibraryHandle StaticLibrary() {
  return std::bit_cast<runtime::LibraryHandle>(~std::uintptr_t{0});
}

struct ExtensionLookup {
  const char* name;
  std::size_t offset;  ///< of its slot
};

/// In the order of the trace lines, which is not that of the slots.
constexpr ExtensionLookup kExtensionLookups[] = {
    {"C_Reinitialize", offsetof(ExtensionSlots, C_Reinitialize)},
    {"C_ResetToken", offsetof(ExtensionSlots, C_ResetToken)},
    {"C_UnlockPIN", offsetof(ExtensionSlots, C_UnlockPIN)},
    {"C_SetTraceFile", offsetof(ExtensionSlots, C_SetTraceFile)},
    {"C_SetPINEx", offsetof(ExtensionSlots, C_SetPINEx)},
    {"C_GenerateChallenge", offsetof(ExtensionSlots, C_GenerateChallenge)},
    {"C_SetTokenTimeout", offsetof(ExtensionSlots, C_SetTokenTimeout)},
    {"C_SetTraceCallback", offsetof(ExtensionSlots, C_SetTraceCallback)},
    {"C_SetVariable", offsetof(ExtensionSlots, C_SetVariable)},
    {"C_GetVariable", offsetof(ExtensionSlots, C_GetVariable)},
};

// Found on first use and shared by all wrappers.
ListCardsFunction listCards = nullptr;
AddExternalSlotFunction addExternalSlot = nullptr;
RemoveExternalSlotFunction removeExternalSlot = nullptr;

bool IsStillLoaded(const char* path) {
  void* const library = ::dlopen(path, RTLD_NOW | RTLD_NOLOAD);
  if (library == nullptr) return false;
  ::dlclose(library);  // the reference that the question took
  return true;
}

/// Constant-initialised, so that no other static object can come before it.
constinit CWrapperPkcs11 processWrapper;

}  // namespace

CWrapperPkcs11& Pkcs11() {
  return processWrapper;
}

CWrapperPkcs11::~CWrapperPkcs11() {
  runtime::TraceWrite("WrapperPkcs11 - Destroyed");
}

// --- the standard's functions ------------------------------------------------------------------

#define QIXX_FORWARD(name, parameters, arguments)                           \
  CK_RV CForwarderPkcs11::name parameters {                                 \
    if (functions_ == nullptr) EnsureLoaded();                              \
    if (functions_ == nullptr) return CKR_GENERAL_ERROR;                    \
    if (functions_->C_##name == nullptr) return CKR_FUNCTION_NOT_SUPPORTED; \
    return functions_->C_##name arguments;                                  \
  }
QIXX_CK_FUNCTIONS(QIXX_FORWARD)
#undef QIXX_FORWARD

CK_RV CWrapperPkcs11::GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
  if (functions_ == nullptr) return CKR_FUNCTION_FAILED;
  return CForwarderPkcs11::GetFunctionList(list);
}

CK_RV CWrapperPkcs11::OpenSession(CK_SLOT_ID slot, CK_FLAGS flags, CK_VOID_PTR application,
                                  CK_NOTIFY notify, CK_SESSION_HANDLE_PTR session) {
  if (static_) return CKR_OK;
  if (functions_ == nullptr) return CKR_GENERAL_ERROR;
  return CForwarderPkcs11::OpenSession(slot, flags, application, notify, session);
}

CK_RV CWrapperPkcs11::Sign(CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG dataLength,
                           CK_BYTE_PTR signature, CK_ULONG_PTR signatureLength) {
  if (static_) return CKR_FUNCTION_FAILED;
  if (functions_ == nullptr) return CKR_GENERAL_ERROR;
  return CForwarderPkcs11::Sign(session, data, dataLength, signature, signatureLength);
}

CK_RV CWrapperPkcs11::SetPIN(CK_SESSION_HANDLE session, CK_UTF8CHAR_PTR oldPin,
                             CK_ULONG oldPinLength, CK_UTF8CHAR_PTR newPin, CK_ULONG newPinLength,
                             std::uint64_t extra) {
  if (extra == kStandardSetPin) {
    return CForwarderPkcs11::SetPIN(session, oldPin, oldPinLength, newPin, newPinLength);
  }
  if (!extended_) return CKR_FUNCTION_NOT_SUPPORTED;
  return CallExtension(&ExtensionSlots::C_SetPINEx, session, oldPin, oldPinLength, newPin,
                       newPinLength, extra);
}

CK_RV CWrapperPkcs11::WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR slot, CK_VOID_PTR reserved) {
  if (!static_) return WaitForLibrarySlotEvent(flags, slot, reserved);
  if (initializeCount_ != 0) return CKR_NO_EVENT;
  runtime::TraceWrite("WrapperPkcs11 - No event before initialize");
  return CKR_CRYPTOKI_NOT_INITIALIZED;
}

CK_RV CWrapperPkcs11::WaitForLibrarySlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR slot,
                                              CK_VOID_PTR reserved) {
  if (functions_ == nullptr) EnsureLoaded();
  if (functions_ == nullptr || functions_->C_WaitForSlotEvent == nullptr) return CKR_GENERAL_ERROR;
  return functions_->C_WaitForSlotEvent(flags, slot, reserved);
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

// --- the library -------------------------------------------------------------------------------

bool CWrapperPkcs11::Load(const char* path) {
  char found[runtime::kTextSize] = "static";
  if (library_ == nullptr && !LoadNow(path, found)) return false;
  runtime::TraceWrite("WrapperPkcs11 - Loaded%s '%s'", extended_ ? " extended" : "", found);
  return true;
}

bool CWrapperPkcs11::LoadNow(const char* path, std::span<char> found) {
  if (static_ && !forceLoad_) {
    library_ = StaticLibrary();
    extended_ = true;
    return true;
  }
  library_ = runtime::LoadLibrarySearch(path, found);
  if (library_ == nullptr) return false;
  runtime::CopyTextCut(libraryPath_, runtime::TextOf(found));
  if (!ObtainFunctionList()) {
    runtime::CloseLibrary(library_);
    library_ = nullptr;
    return false;
  }
  extended_ = true;
  ResolveExtensions();
  return true;
}

bool CWrapperPkcs11::ObtainFunctionList() {
  const auto obtain =
      reinterpret_cast<CK_C_GetFunctionList>(runtime::FindSymbol(library_, "C_GetFunctionList"));
  if (obtain != nullptr && obtain(&functions_) != CKR_OK) functions_ = nullptr;
  return functions_ != nullptr;
}

void CWrapperPkcs11::ResolveExtensions() {
  void* found[std::size(kExtensionLookups)];
  bool any = false;
  for (std::size_t i = 0; i < std::size(kExtensionLookups); ++i) {
    found[i] = runtime::FindSymbol(library_, kExtensionLookups[i].name);
    any = any || found[i] != nullptr;
    if (found[i] != nullptr) continue;
    runtime::TraceWrite("WrapperPkcs11 - Function %s missing", kExtensionLookups[i].name);
  }
  if (!any) return;  // a plain standard module: what lies behind its list is not ours
  extension_ = &reinterpret_cast<ExtendedFunctionList*>(functions_)->extension;
  for (std::size_t i = 0; i < std::size(kExtensionLookups); ++i) {
    std::memcpy(reinterpret_cast<std::byte*>(extension_) + kExtensionLookups[i].offset, &found[i],
                sizeof(found[i]));
  }
}

bool CWrapperPkcs11::EnsureLoaded() {
  return library_ != nullptr || Load(PathToLoad());
}

const char* CWrapperPkcs11::PathToLoad() {
  if (libraryPath_[0] == '\0')
    runtime::CopyTextCut(libraryPath_, runtime::ViewOf(runtime::Product().pkcs11Library));
  return libraryPath_;
}

bool CWrapperPkcs11::Release() {
  initializedByUs_ = false;
  functions_ = nullptr;
  extension_ = nullptr;
  if (library_ == nullptr) return false;
  if (library_ != StaticLibrary()) runtime::CloseLibrary(library_);
  library_ = nullptr;
  runtime::TraceWrite("WrapperPkcs11 - Released");
  return true;
}

bool CWrapperPkcs11::LoadLibraryFromConfig() {
  config::CConfig config;
  if (config.OpenAll(false) != config::kConfigOk) return false;
  char path[runtime::kTextSize] = {};
  if (config::ReadConfigText(config, "Pkcs11", "Library", path, true)) {
    runtime::CopyTextCut(libraryPath_, runtime::TextOf(path));
  }
  config.Close(true);
  return true;
}

bool CWrapperPkcs11::SetLibraryPath(const char* path) {
  return runtime::CopyTextIfFits(libraryPath_, runtime::ViewOf(path));
}

// --- initialisation ----------------------------------------------------------------------------

CK_RV CWrapperPkcs11::Initialize(CK_VOID_PTR initArgs) {
  if (initializeCount_ != 0) {
    ++initializeCount_;
    runtime::TraceWrite("WrapperPkcs11 - Initialize count %d at initialize", Count());
    return CKR_OK;
  }
  if (!EnsureLoaded()) {
    runtime::TraceWrite("WrapperPkcs11 - Failed to load library");
    runtime::TraceWrite("WrapperPkcs11 - Initialize count %d at initialize", Count());
    return CKR_GENERAL_ERROR;
  }
  if (functions_ == nullptr || functions_->C_Initialize == nullptr) return CKR_GENERAL_ERROR;
  const CK_RV result = functions_->C_Initialize(initArgs);
  if (result == CKR_OK) {
    initializedByUs_ = true;
  } else if (result != CKR_CRYPTOKI_ALREADY_INITIALIZED) {
    runtime::TraceWrite("WrapperPkcs11 - Initialize count %d at initialize", Count());
    return result;
  }
  initializeCount_ = 1;
  runtime::TraceWrite("WrapperPkcs11 - Initialize count %d at initialize", Count());
  return CKR_OK;
}

CK_RV CWrapperPkcs11::Finalize(CK_VOID_PTR reserved) {
  CK_RV result = CKR_OK;
  if (initializeCount_ == 0) {
    result = CKR_CRYPTOKI_NOT_INITIALIZED;
  } else if (--initializeCount_ == 0 && initializedByUs_) {
    if (!static_) {
      if (functions_ == nullptr) EnsureLoaded();
      if (functions_ == nullptr || functions_->C_Finalize == nullptr) return CKR_GENERAL_ERROR;
      result = functions_->C_Finalize(reserved);
    }
    initializedByUs_ = false;
  }
  runtime::TraceWrite("WrapperPkcs11 - Initialize count %d at finalize", Count());
  return result;
}

CK_RV CWrapperPkcs11::Reinitialize(CK_VOID_PTR initArgs) {
  if (extended_) return CallExtension(&ExtensionSlots::C_Reinitialize, initArgs);

  const runtime::LibraryHandle library = library_;
  const std::uint64_t count = initializeCount_;
  std::uint64_t finalized = 0;
  while (finalized < kMaxReleases && Finalize(nullptr) == CKR_OK) ++finalized;
  Release();
  const std::uint64_t closed = CloseRemaining(library);
  runtime::TraceWrite("WrapperPkcs11 - Reinitialize released (%d:%d:%d)", static_cast<int>(count),
                      static_cast<int>(finalized), static_cast<int>(closed));

  Load(PathToLoad());
  for (std::uint64_t i = 0; i < finalized && Initialize(nullptr) == CKR_OK;) ++i;
  // Other users of the process hold these references and will close them.
  for (std::uint64_t i = 0; i < closed && runtime::OpenLibrary(libraryPath_) != nullptr;) ++i;
  initializeCount_ = count;
  return CKR_OK;
}

std::uint64_t CWrapperPkcs11::CloseRemaining(runtime::LibraryHandle library) const {
  if (library == nullptr || library == StaticLibrary()) return 0;
  std::uint64_t closed = 0;
  // Only the loader's word that the library is still there makes its handle safe to use.
  while (closed < kMaxReleases && IsStillLoaded(libraryPath_) && ::dlclose(library) == 0) ++closed;
  return closed;
}

// --- extension functions -----------------------------------------------------------------------

template <typename... Parameters>
CK_RV CWrapperPkcs11::CallExtension(CK_RV (*ExtensionSlots::*function)(Parameters...),
                                    Parameters... arguments) {
  if (functions_ == nullptr) EnsureLoaded();
  if (functions_ == nullptr) return CKR_GENERAL_ERROR;
  if (extension_ == nullptr || extension_->*function == nullptr) return CKR_FUNCTION_NOT_SUPPORTED;
  return (extension_->*function)(arguments...);
}

CK_RV CWrapperPkcs11::ResetToken(ExtensionWord first, ExtensionWord second, ExtensionWord third) {
  if (!extended_) return CKR_FUNCTION_NOT_SUPPORTED;
  return CallExtension(&ExtensionSlots::C_ResetToken, first, second, third);
}

CK_RV CWrapperPkcs11::UnlockPIN(ExtensionWord first, ExtensionWord second, ExtensionWord third,
                                ExtensionWord fourth, ExtensionWord fifth) {
  if (!extended_) return CKR_FUNCTION_NOT_SUPPORTED;
  return CallExtension(&ExtensionSlots::C_UnlockPIN, first, second, third, fourth, fifth);
}

CK_RV CWrapperPkcs11::SetTraceFile(ExtensionWord first) {
  if (!extended_) return CKR_FUNCTION_NOT_SUPPORTED;
  return CallExtension(&ExtensionSlots::C_SetTraceFile, first);
}

CK_RV CWrapperPkcs11::SetTraceCallback(ExtensionWord first) {
  if (!extended_) return CKR_FUNCTION_NOT_SUPPORTED;
  return CallExtension(&ExtensionSlots::C_SetTraceCallback, first);
}

CK_RV CWrapperPkcs11::GenerateChallenge(ExtensionWord first, ExtensionWord second,
                                        ExtensionWord third) {
  if (!extended_) return CKR_FUNCTION_NOT_SUPPORTED;
  return CallExtension(&ExtensionSlots::C_GenerateChallenge, first, second, third);
}

CK_RV CWrapperPkcs11::SetTokenTimeout(ExtensionWord first, ExtensionWord second) {
  if (!extended_) return CKR_FUNCTION_NOT_SUPPORTED;
  return CallExtension(&ExtensionSlots::C_SetTokenTimeout, first, second);
}

CK_RV CWrapperPkcs11::SetVariable(ExtensionWord first, ExtensionWord second) {
  return CallExtension(&ExtensionSlots::C_SetVariable, first, second);
}

CK_RV CWrapperPkcs11::GetVariable(ExtensionWord first, ExtensionWord second, ExtensionWord third) {
  return CallExtension(&ExtensionSlots::C_GetVariable, first, second, third);
}

template <typename Function>
bool CWrapperPkcs11::FindOnce(Function& cached, const char* name) {
  if (cached != nullptr) return true;
  // The reference stays for as long as the process, since the address does.
  const runtime::LibraryHandle library = runtime::LoadLibrarySearch(PathToLoad(), {});
  cached = reinterpret_cast<Function>(runtime::FindSymbol(library, name));
  return cached != nullptr;
}

CK_RV CWrapperPkcs11::ListCards(CK_ULONG flag, CK_VOID_PTR first, CK_VOID_PTR second) {
  if (!FindOnce(listCards, "C_ListCards")) return CKR_GENERAL_ERROR;
  return listCards(static_cast<CK_BYTE>(flag), first, second);
}

CK_RV CWrapperPkcs11::AddExternalSlot(ExtensionWord first, ExtensionWord second,
                                      ExtensionWord third) {
  if (!FindOnce(addExternalSlot, "C_AddExternalSlot")) return CKR_GENERAL_ERROR;
  return addExternalSlot(first, second, third);
}

CK_RV CWrapperPkcs11::RemoveExternalSlot(ExtensionWord first) {
  if (!extended_) return CKR_FUNCTION_NOT_SUPPORTED;
  if (!FindOnce(removeExternalSlot, "C_RemoveExternalSlot")) return CKR_GENERAL_ERROR;
  return removeExternalSlot(first);
}

}  // namespace qixx::pkcs11
