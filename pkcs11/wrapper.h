// The one way to the PKCS#11 library: loading it, sharing its initialisation, forwarding calls.
//
// The library is loaded by the first operation that needs it and stays mapped until the process
// ends. Initialisations are counted, so that several users in the process share one C_Initialize
// and one C_Finalize. Return values of the library pass through unchanged. There is no lock:
// callers serialise their use.
#pragma once

#include <cstdint>
#include <span>

#include "pkcs11/cryptoki.h"
#include "pkcs11/extended.h"
#include "runtime/loader.h"
#include "runtime/text.h"

namespace qixx::pkcs11 {

/// The last argument of SetPIN that stands for the standard's C_SetPIN. The 64-bit all-ones value
/// is another one, as intended.
inline constexpr std::uint64_t kStandardSetPin = 0xFFFFFFFF;

/// Every function of the standard as an operation without the "C_", with the standard's arguments.
/// CKR_GENERAL_ERROR when no function list can be had, CKR_FUNCTION_NOT_SUPPORTED for a function
/// that the library leaves out.
class CForwarderPkcs11 {
 public:
#define QIXX_OPERATION(name, parameters, arguments) CK_RV name parameters;
  QIXX_CK_FUNCTIONS(QIXX_OPERATION)
#undef QIXX_OPERATION

 protected:
  constexpr CForwarderPkcs11() = default;
  ~CForwarderPkcs11() = default;
  /// Sets the function list when it can be had.
  virtual bool EnsureLoaded() = 0;

  runtime::LibraryHandle library_ = nullptr;
  CK_FUNCTION_LIST_PTR functions_ = nullptr;  ///< owned by the library
};

/// The forwarder with everything that does not simply go through.
class CWrapperPkcs11 final : private CForwarderPkcs11 {
 public:
  constexpr CWrapperPkcs11() = default;
  /// Traces only: others in the process may still use the library.
  ~CWrapperPkcs11();
  CWrapperPkcs11(const CWrapperPkcs11&) = delete;
  CWrapperPkcs11& operator=(const CWrapperPkcs11&) = delete;

  // --- the library -----------------------------------------------------------------------------

  /// Loads the library and resolves its functions. True when it is loaded, also before the call.
  bool Load(const char* path);
  /// Loads the library path, or the product's library when there is none yet.
  bool EnsureLoaded() override;
  /// Gives the library up; the initialise count stays. False when there is none.
  bool Release();
  /// Takes the library path from the configuration. False only when that cannot be opened.
  bool LoadLibraryFromConfig();
  /// Which library the next load takes; an empty text stands for the product's. A path that does
  /// not fit is refused.
  bool SetLibraryPath(const char* path);
  /// The path under which the library was found, or the one that the next load takes.
  [[nodiscard]] const char* LibraryPath() const { return libraryPath_; }

  // --- initialisation --------------------------------------------------------------------------

  /// Counted: the library is called by the first one only. That another user of the process has
  /// initialised it before is a success, and then it is left to them to finalise it.
  CK_RV Initialize(CK_VOID_PTR initArgs);
  /// CKR_CRYPTOKI_NOT_INITIALIZED when there are more of these than of the former.
  CK_RV Finalize(CK_VOID_PTR reserved);
  /// The library's own, once one has been loaded; before that it is loaded afresh.
  CK_RV Reinitialize(CK_VOID_PTR initArgs);
  [[nodiscard]] std::uint64_t InitializeCount() const { return initializeCount_; }

  // --- operations with a difference ------------------------------------------------------------

  /// Does not load; CKR_FUNCTION_FAILED without a list.
  CK_RV GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list);
  /// Does not load.
  CK_RV OpenSession(CK_SLOT_ID slot, CK_FLAGS flags, CK_VOID_PTR application, CK_NOTIFY notify,
                    CK_SESSION_HANDLE_PTR session);
  /// Does not load.
  CK_RV Sign(CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG dataLength,
             CK_BYTE_PTR signature, CK_ULONG_PTR signatureLength);
  /// C_SetPINEx, or C_SetPIN for `extra` = kStandardSetPin.
  CK_RV SetPIN(CK_SESSION_HANDLE session, CK_UTF8CHAR_PTR oldPin, CK_ULONG oldPinLength,
               CK_UTF8CHAR_PTR newPin, CK_ULONG newPinLength, std::uint64_t extra);
  /// CKR_GENERAL_ERROR also when the library has no such function.
  CK_RV WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR slot, CK_VOID_PTR reserved);
  /// The same without regard to static mode.
  CK_RV WaitForLibrarySlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR slot, CK_VOID_PTR reserved);
  /// Takes a pending event, if any. True when `lastSeen`, kept by the caller, differs from what has
  /// been seen by now. Numbers start at one, so that a caller who starts with 0 is told of an event
  /// at once; callers rely on that.
  bool HasNewEvent(std::uint64_t& lastSeen);

  // Parallel functions, which the standard keeps for old programs only; SetPIN without `extra`.
  CK_RV GetFunctionStatus(CK_SESSION_HANDLE) = delete;
  CK_RV CancelFunction(CK_SESSION_HANDLE) = delete;
  CK_RV SetPIN(CK_SESSION_HANDLE, CK_UTF8CHAR_PTR, CK_ULONG, CK_UTF8CHAR_PTR, CK_ULONG) = delete;

  // --- extension functions ---------------------------------------------------------------------
  // CKR_FUNCTION_NOT_SUPPORTED while nothing was ever loaded and for a function that the library
  // does not have, CKR_GENERAL_ERROR without a function list.

  CK_RV ResetToken(ExtensionWord first, ExtensionWord second, ExtensionWord third);
  CK_RV UnlockPIN(ExtensionWord first, ExtensionWord second, ExtensionWord third,
                  ExtensionWord fourth, ExtensionWord fifth);
  CK_RV SetTraceFile(ExtensionWord first);
  CK_RV SetTraceCallback(ExtensionWord first);
  CK_RV GenerateChallenge(ExtensionWord first, ExtensionWord second, ExtensionWord third);
  CK_RV SetTokenTimeout(ExtensionWord first, ExtensionWord second);
  // These two load the library when nothing was loaded yet, unlike the others; intended.
  CK_RV SetVariable(ExtensionWord first, ExtensionWord second);
  CK_RV GetVariable(ExtensionWord first, ExtensionWord second, ExtensionWord third);

  // Looked up outside the list on first use, for all wrappers of the process; CKR_GENERAL_ERROR
  // when the library does not have them.
  CK_RV ListCards(CK_ULONG flag, CK_VOID_PTR first, CK_VOID_PTR second);
  CK_RV AddExternalSlot(ExtensionWord first, ExtensionWord second, ExtensionWord third);
  /// CKR_FUNCTION_NOT_SUPPORTED while nothing was ever loaded.
  CK_RV RemoveExternalSlot(ExtensionWord first);

  // --- all other operations: the forwarder's, where nothing above has the same name -------------

#define QIXX_OPERATION(name, parameters, arguments) using CForwarderPkcs11::name;
  QIXX_CK_FUNCTIONS(QIXX_OPERATION)
#undef QIXX_OPERATION

 private:
  bool LoadNow(const char* path, std::span<char> found);
  bool ObtainFunctionList();
  void ResolveExtensions();
  const char* PathToLoad();
  [[nodiscard]] int Count() const {
    return static_cast<int>(initializeCount_);
  }
  std::uint64_t CloseRemaining(runtime::LibraryHandle library) const;
  template <typename... Parameters>
  CK_RV CallExtension(CK_RV (*ExtensionSlots::*function)(Parameters...), Parameters... arguments);
  template <typename Function>
  bool FindOnce(Function& cached, const char* name);

  char libraryPath_[runtime::kTextSize] = {};
  bool initializedByUs_ = false;
  std::uint64_t initializeCount_ = 0;
  bool extended_ = false;  ///< a list was obtained once
  bool static_ = false;    ///< the library is part of the program; nothing sets this here
  [[maybe_unused]] bool reserved_ = true;  ///< kept, not read
  bool forceLoad_ = false;                 ///< loads a file in static mode too
  std::uint64_t newEvents_ = 0;            ///< taken by HasNewEvent
  /// The slots behind the list, null for a library that has none.
  ExtensionSlots* extension_ = nullptr;
};

/// The wrapper of the process. It exists before main and its storage as long as the process.
CWrapperPkcs11& Pkcs11();

}  // namespace qixx::pkcs11
