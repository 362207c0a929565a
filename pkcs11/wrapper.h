// The one way to the PKCS#11 library: loading it, sharing its initialisation, forwarding calls.
//
// The library is loaded by the first operation that needs it and stays mapped until the process
// ends. Initialisations are counted, so that several users in the process share one C_Initialize
// and one C_Finalize. Return values of the library pass through unchanged. A function that does not
// come back, because it throws or ends its thread, has failed with CKR_GENERAL_ERROR. There is no
// lock: callers serialise their use. Only std::bad_alloc is thrown, by what may load the library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "pkcs11/cryptoki.h"
#include "pkcs11/extended.h"
#include "runtime/loader.h"
#include "runtime/text.h"

namespace qixx::pkcs11 {

/// The longest library path, in bytes.
inline constexpr std::size_t kMaxLibraryPath = runtime::kMaxText;

/// The last argument of SetPIN that stands for the standard's C_SetPIN. The 64-bit all-ones value
/// is another one and reaches C_SetPINEx.
inline constexpr std::uint64_t kStandardSetPin = 0xFFFFFFFF;

/// Every function of the standard, and every extension function with a slot, as an operation
/// without the "C_", with the function's arguments. CKR_GENERAL_ERROR when no function list can be
/// had, CKR_FUNCTION_NOT_SUPPORTED for a function that the library leaves out.
class CForwarderPkcs11 {
 public:
#define QIXX_OPERATION(name, parameters, arguments) CK_RV name parameters;
  QIXX_CK_FUNCTIONS(QIXX_OPERATION)

  // spare: CKR_FUNCTION_NOT_SUPPORTED also while nothing was ever loaded.
  QIXX_CK_SLOTS_1_TO_6(QIXX_OPERATION)
  QIXX_CK_SLOTS_8_TO_9(QIXX_OPERATION)
  // spare: these two load the library then instead.
  QIXX_CK_SLOTS_10_TO_11(QIXX_OPERATION)
#undef QIXX_OPERATION

 protected:
  constexpr CForwarderPkcs11() = default;
  ~CForwarderPkcs11() = default;
  /// Sets the function list when it can be had.
  virtual bool EnsureLoaded() = 0;
  /// Whether there is a function list, after a load where none is held.
  bool HasFunctions();

  CK_FUNCTION_LIST_PTR functions_ = nullptr;  ///< owned by the library
  /// The slots behind the list, null for a library that has none.
  ExtensionSlots* extension_ = nullptr;
  bool extended_ = false;  ///< a list was obtained once
};

/// The forwarder with everything that does not simply go through: an operation here stands in the
/// place of the forwarder's.
class CWrapperPkcs11 final : public CForwarderPkcs11 {
 public:
  constexpr CWrapperPkcs11() = default;
  /// spare: static mode, in which these functions of the program itself are the library. No file is
  /// loaded then unless `forceLoad` is set.
  constexpr explicit CWrapperPkcs11(CK_FUNCTION_LIST_PTR ofProgram, bool forceLoad = false)
      : ofProgram_(ofProgram), forceLoad_(forceLoad) {}
  /// Traces only, and leaves the library mapped: others in the process may still use it.
  ~CWrapperPkcs11();
  CWrapperPkcs11(const CWrapperPkcs11&) = delete;
  CWrapperPkcs11& operator=(const CWrapperPkcs11&) = delete;

  // --- the library -----------------------------------------------------------------------------

  /// Loads the library and resolves its functions. True when it is loaded, also before the call.
  bool Load(const std::string& path);
  /// Loads the library path, or the product's library when there is none yet.
  bool EnsureLoaded() override;
  /// Gives the library up; the initialise count stays. False when there is none.
  bool Release();
  /// spare: which library the next load takes; an empty text stands for the product's. A path
  /// longer than kMaxLibraryPath is refused.
  bool SetLibraryPath(std::string_view path);

  /// A descriptor that is readable when a poll for slot events would have something to tell; -1
  /// when the library has none, at least for now. It is the library's, which may close it.
  [[nodiscard]] int EventDescriptor() const;
  /// Whether the library tells events of a slot; nothing when it does not say.
  [[nodiscard]] std::optional<bool> SlotCounts(CK_SLOT_ID slot) const;
  /// Tells the library that its caller takes no notice of the card that is in the slot. False when
  /// the library does not listen.
  bool PassOver(CK_SLOT_ID slot) const;
  /// Why the last initialisation found no module for the library to stand on, in its own words;
  /// empty when it found one, and when the library does not say.
  [[nodiscard]] std::string ModuleFault() const;

  // --- initialisation --------------------------------------------------------------------------

  /// Counted: the library is called by the first one only. That another user of the process has
  /// initialised it before is a success, and then it is left to them to finalise it.
  CK_RV Initialize(CK_VOID_PTR initArgs);
  /// CKR_CRYPTOKI_NOT_INITIALIZED when there are more of these than of the former.
  CK_RV Finalize(CK_VOID_PTR reserved);
  [[nodiscard]] std::uint64_t InitializeCount() const { return initializeCount_; }

  // --- operations with a difference ------------------------------------------------------------

  /// Does not load; CKR_FUNCTION_FAILED without a list.
  CK_RV GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list);
  /// Does not load. In static mode CKR_OK without a session.
  CK_RV OpenSession(CK_SLOT_ID slot, CK_FLAGS flags, CK_VOID_PTR application, CK_NOTIFY notify,
                    CK_SESSION_HANDLE_PTR session);
  /// Does not load. CKR_FUNCTION_FAILED in static mode.
  CK_RV Sign(CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG dataLength,
             CK_BYTE_PTR signature, CK_ULONG_PTR signatureLength);
  /// CKR_GENERAL_ERROR also when the library has no such function. Not called in static mode, where
  /// no event ever comes.
  CK_RV WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR slot, CK_VOID_PTR reserved);
  /// The same without regard to static mode.
  CK_RV WaitForLibrarySlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR slot, CK_VOID_PTR reserved);

  // Parallel functions, which the standard keeps for old programs only; SetPIN without `extra`.
  CK_RV GetFunctionStatus(CK_SESSION_HANDLE) = delete;
  CK_RV CancelFunction(CK_SESSION_HANDLE) = delete;
  CK_RV SetPIN(CK_SESSION_HANDLE, CK_UTF8CHAR_PTR, CK_ULONG, CK_UTF8CHAR_PTR, CK_ULONG) = delete;

  // --- spare: asked of this layer by the suite's design, built, called by nothing in
  // --- this program (spare_wrapper.cpp) --------------------------------------------------------

  /// Takes the library path from the configuration. False only when that cannot be opened.
  bool LoadLibraryFromConfig();
  /// The library's own, once one has been loaded; before that it is loaded.
  CK_RV Reinitialize(CK_VOID_PTR initArgs);
  /// C_SetPINEx, or C_SetPIN for `extra` = kStandardSetPin.
  CK_RV SetPIN(CK_SESSION_HANDLE session, CK_UTF8CHAR_PTR oldPin, CK_ULONG oldPinLength,
               CK_UTF8CHAR_PTR newPin, CK_ULONG newPinLength, std::uint64_t extra);
  /// Takes a pending event, if any. True when `lastSeen`, kept by the caller, differs from what has
  /// been seen by now. Numbers start at one, so that a caller who starts with 0 is told of an event
  /// at once; callers rely on that.
  bool HasNewEvent(std::uint64_t& lastSeen);

  // Looked up outside the list on first use, for all wrappers of the process; CKR_GENERAL_ERROR
  // when the library does not have them.
  CK_RV ListCards(CK_ULONG flag, CK_VOID_PTR first, CK_VOID_PTR second);
  CK_RV AddExternalSlot(CK_ULONG first, CK_ULONG second, CK_ULONG third);
  /// CKR_FUNCTION_NOT_SUPPORTED while nothing was ever loaded.
  CK_RV RemoveExternalSlot(CK_ULONG first);

 private:
  [[nodiscard]] bool IsStatic() const { return ofProgram_ != nullptr; }
  [[nodiscard]] bool IsLoaded() const { return library_.IsOpen() || usesProgram_; }
  std::optional<std::string> LoadNow(const std::string& path);
  std::optional<std::string> LoadFile(const std::string& path);
  bool ObtainFunctionList(const runtime::SharedLibrary& library);
  void ResolveExtensions();
  const std::string& PathToLoad();
  void NotifyNotStarted(const std::string& reason) const;
  void NotifyNotStarted(CK_RV result) const;
  void TraceCount(const char* when) const;
  template <typename Function>
  bool FindOnce(Function& cached, const char* name);

  CK_FUNCTION_LIST_PTR ofProgram_ = nullptr;  ///< static mode when there is one
  bool forceLoad_ = false;                    ///< loads a file in static mode too
  runtime::SharedLibrary library_;
  EventDescriptorFunction describeEvents_ = nullptr;
  bool usesProgram_ = false;  ///< loaded in static mode
  /// Where the library was found, or where the next load looks. An optional one, since not every
  /// compiler makes a text at compile time.
  std::optional<std::string> libraryPath_;
  bool initializedByUs_ = false;
  std::uint64_t initializeCount_ = 0;
  std::uint64_t newEvents_ = 0;  ///< taken by HasNewEvent
};

/// The wrapper of the process. It exists before main and its storage as long as the process.
CWrapperPkcs11& Pkcs11();

}  // namespace qixx::pkcs11
