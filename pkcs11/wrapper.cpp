#include "pkcs11/wrapper.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <utility>

#include "pkcs11/function_call.h"
#include "runtime/notice.h"
#include "runtime/product.h"
#include "runtime/trace.h"

namespace qixx::pkcs11 {
namespace {

/// What stands for the path of the library when no file was loaded.
constexpr const char* kNoFile = "static";

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

constexpr const char* kEventDescriptor = "QixEventDescriptor";

/// What a function that no library needs to have answers; `otherwise` when there is none, or it
/// does not come back.
template <typename Answer, typename Function, typename... Arguments>
Answer AnswerOr(Answer otherwise, const char* name, Function function, Arguments... arguments) {
  Answer answer = otherwise;
  if (function != nullptr) (void)CallFunction(name, [&] { answer = function(arguments...); });
  return answer;
}

constinit std::atomic<CallListener> callListener{nullptr};

/// Constant-initialised, so that no other static object can come before it.
constinit CWrapperPkcs11 processWrapper;

}  // namespace

CWrapperPkcs11& Pkcs11() {
  return processWrapper;
}

void ListenToCalls(CallListener listener) {
  callListener = listener;
}

void NoteCall() {
  const CallListener listener = callListener;
  if (listener != nullptr) listener();
}

CWrapperPkcs11::~CWrapperPkcs11() {
  (void)library_.Release();
  runtime::TraceWrite("WrapperPkcs11 - Destroyed");
}

// --- the standard's functions ------------------------------------------------------------------

bool CForwarderPkcs11::HasFunctions() {
  if (functions_ == nullptr) EnsureLoaded();
  return functions_ != nullptr;
}

#define QIXX_FORWARD(name, parameters, arguments)            \
  CK_RV CForwarderPkcs11::name parameters {                  \
    if (!HasFunctions()) return CKR_GENERAL_ERROR;           \
    const FunctionOf call("C_" #name, functions_->C_##name); \
    return call arguments;                                   \
  }
QIXX_CK_FUNCTIONS(QIXX_FORWARD)
#undef QIXX_FORWARD

CK_RV CWrapperPkcs11::GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
  if (functions_ == nullptr) return CKR_FUNCTION_FAILED;
  return CForwarderPkcs11::GetFunctionList(list);
}

CK_RV CWrapperPkcs11::OpenSession(CK_SLOT_ID slot, CK_FLAGS flags, CK_VOID_PTR application,
                                  CK_NOTIFY notify, CK_SESSION_HANDLE_PTR session) {
  if (IsStatic()) return CKR_OK;
  if (functions_ == nullptr) return CKR_GENERAL_ERROR;
  return CForwarderPkcs11::OpenSession(slot, flags, application, notify, session);
}

CK_RV CWrapperPkcs11::Sign(CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG dataLength,
                           CK_BYTE_PTR signature, CK_ULONG_PTR signatureLength) {
  if (IsStatic()) return CKR_FUNCTION_FAILED;
  if (functions_ == nullptr) return CKR_GENERAL_ERROR;
  return CForwarderPkcs11::Sign(session, data, dataLength, signature, signatureLength);
}

CK_RV CWrapperPkcs11::WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR slot, CK_VOID_PTR reserved) {
  if (!IsStatic()) return WaitForLibrarySlotEvent(flags, slot, reserved);
  if (initializeCount_ != 0) return CKR_NO_EVENT;
  runtime::TraceWrite("WrapperPkcs11 - No event before initialize");
  return CKR_CRYPTOKI_NOT_INITIALIZED;
}

CK_RV CWrapperPkcs11::WaitForLibrarySlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR slot,
                                              CK_VOID_PTR reserved) {
  if (!HasFunctions() || functions_->C_WaitForSlotEvent == nullptr) return CKR_GENERAL_ERROR;
  return FunctionOf("C_WaitForSlotEvent", functions_->C_WaitForSlotEvent)(flags, slot, reserved);
}

// --- the library -------------------------------------------------------------------------------

bool CWrapperPkcs11::Load(const std::string& path) {
  const std::optional<std::string> found = IsLoaded() ? kNoFile : LoadNow(path);
  if (!found) return false;
  runtime::TraceWrite("WrapperPkcs11 - Loaded%s '%s'", extended_ ? " extended" : "",
                      found->c_str());
  return true;
}

/// Gives the path for the trace.
std::optional<std::string> CWrapperPkcs11::LoadNow(const std::string& path) {
  if (!IsStatic() || forceLoad_) return LoadFile(path);
  functions_ = ofProgram_;
  usesProgram_ = true;
  extended_ = true;
  return kNoFile;
}

std::optional<std::string> CWrapperPkcs11::LoadFile(const std::string& path) {
  std::vector<runtime::FailedOpen> failed;
  std::optional<runtime::FoundLibrary> found = runtime::LoadLibrarySearch(path, &failed);
  if (!found) {
    for (const runtime::FailedOpen& place : failed) {
      runtime::NotifyOnce("no library " + place.path + ": " + place.reason);
    }
    return std::nullopt;
  }
  libraryPath_ = found->path;
  if (!ObtainFunctionList(found->library)) {
    runtime::NotifyOnce("library " + found->path + " gives no PKCS#11 functions");
    return std::nullopt;
  }
  library_ = std::move(found->library);
  extended_ = true;
  ResolveExtensions();
  return libraryPath_;
}

bool CWrapperPkcs11::ObtainFunctionList(const runtime::SharedLibrary& library) {
  const auto obtain = library.FindSymbol<CK_C_GetFunctionList>("C_GetFunctionList");
  if (obtain == nullptr) return false;
  if (FunctionOf("C_GetFunctionList", obtain)(&functions_) != CKR_OK) functions_ = nullptr;
  return functions_ != nullptr;
}

void CWrapperPkcs11::ResolveExtensions() {
  describeEvents_ = library_.FindOwnSymbol<EventDescriptorFunction>(kEventDescriptor);
  void* found[std::size(kExtensionLookups)];
  for (std::size_t i = 0; i < std::size(found); ++i) {
    const char* const name = kExtensionLookups[i].name;
    found[i] = library_.FindOwnSymbol<void*>(name);
    if (found[i] == nullptr) runtime::TraceWrite("WrapperPkcs11 - Function %s missing", name);
  }
  // A plain standard module: what lies behind its list is not ours.
  if (std::ranges::count(found, nullptr) == std::ssize(found)) return;
  extension_ = &reinterpret_cast<ExtendedFunctionList*>(functions_)->extension;
  for (std::size_t i = 0; i < std::size(found); ++i) {
    std::memcpy(reinterpret_cast<std::byte*>(extension_) + kExtensionLookups[i].offset, &found[i],
                sizeof(found[i]));
  }
}

bool CWrapperPkcs11::EnsureLoaded() {
  return IsLoaded() || Load(PathToLoad());
}

const std::string& CWrapperPkcs11::PathToLoad() {
  if (!libraryPath_ || libraryPath_->empty()) libraryPath_ = runtime::Product().pkcs11Library;
  return *libraryPath_;
}

bool CWrapperPkcs11::Release() {
  initializedByUs_ = false;
  functions_ = nullptr;
  extension_ = nullptr;
  describeEvents_ = nullptr;
  if (!IsLoaded()) return false;
  library_.Close();
  usesProgram_ = false;
  runtime::TraceWrite("WrapperPkcs11 - Released");
  return true;
}

bool CWrapperPkcs11::SetLibraryPath(std::string_view path) {
  if (path.size() > kMaxLibraryPath) return false;
  libraryPath_ = path;
  return true;
}

int CWrapperPkcs11::EventDescriptor() const {
  return std::max(AnswerOr(-1, kEventDescriptor, describeEvents_), -1);
}

std::optional<bool> CWrapperPkcs11::SlotCounts(CK_SLOT_ID slot) const {
  constexpr const char* kName = "QixSlotCounts";
  const auto ask = library_.FindOwnSymbol<SlotCountsFunction>(kName);
  const int answer = AnswerOr(-1, kName, ask, slot);
  return answer < 0 ? std::nullopt : std::optional(answer != 0);
}

bool CWrapperPkcs11::PassOver(CK_SLOT_ID slot) const {
  constexpr const char* kName = "QixPassOver";
  const auto tell = library_.FindOwnSymbol<PassOverFunction>(kName);
  return tell != nullptr && CallFunction(kName, [&] { tell(slot); });
}

std::string CWrapperPkcs11::ModuleFault() const {
  constexpr const char* kName = "QixModuleFault";
  const auto ask = library_.FindOwnSymbol<ModuleFaultFunction>(kName);
  return std::string(runtime::ViewOf(AnswerOr<const char*>(nullptr, kName, ask)));
}

// --- initialisation ----------------------------------------------------------------------------

void CWrapperPkcs11::TraceCount(const char* when) const {
  runtime::TraceWrite("WrapperPkcs11 - Initialize count %d at %s",
                      static_cast<int>(initializeCount_), when);
}

void CWrapperPkcs11::NotifyNotStarted(const std::string& reason) const {
  runtime::NotifyOnce("library " + libraryPath_.value_or("") + " does not start: " + reason);
}

void CWrapperPkcs11::NotifyNotStarted(CK_RV result) const {
  char reason[64];
  std::snprintf(reason, sizeof reason, "C_Initialize gives 0x%.8lX", result);
  const std::string fault = ModuleFault();
  NotifyNotStarted(fault.empty() ? reason : reason + (": " + fault));
}

CK_RV CWrapperPkcs11::Initialize(CK_VOID_PTR initArgs) {
  if (initializeCount_ != 0) {
    ++initializeCount_;
    TraceCount("initialize");
    return CKR_OK;
  }
  if (!EnsureLoaded()) {
    runtime::TraceWrite("WrapperPkcs11 - Failed to load library");
    TraceCount("initialize");
    return CKR_GENERAL_ERROR;
  }
  if (functions_ == nullptr || functions_->C_Initialize == nullptr) {
    NotifyNotStarted("it has no C_Initialize");
    return CKR_GENERAL_ERROR;
  }
  const CK_RV result = FunctionOf("C_Initialize", functions_->C_Initialize)(initArgs);
  if (result == CKR_OK) {
    initializedByUs_ = true;
  } else if (result != CKR_CRYPTOKI_ALREADY_INITIALIZED) {
    TraceCount("initialize");
    NotifyNotStarted(result);
    return result;
  }
  initializeCount_ = 1;
  TraceCount("initialize");
  return CKR_OK;
}

CK_RV CWrapperPkcs11::Finalize(CK_VOID_PTR reserved) {
  CK_RV result = CKR_OK;
  if (initializeCount_ == 0) {
    result = CKR_CRYPTOKI_NOT_INITIALIZED;
  } else if (--initializeCount_ == 0 && initializedByUs_) {
    if (!IsStatic()) {
      if (!HasFunctions() || functions_->C_Finalize == nullptr) return CKR_GENERAL_ERROR;
      result = FunctionOf("C_Finalize", functions_->C_Finalize)(reserved);
    }
    initializedByUs_ = false;
  }
  TraceCount("finalize");
  return result;
}

}  // namespace qixx::pkcs11
