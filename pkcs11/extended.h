// What the suite's own PKCS#11 library offers beyond the standard.
//
// Its C_GetFunctionList hands out the standard function list followed at once by eleven more
// pointers. The library leaves these empty; whoever loads it looks the functions up by name and
// fills the slots in. A plain standard module has nothing behind its list, so the slots may be
// touched only once an exported extension function has shown whose library it is.
#pragma once

#include <cstddef>
#include <cstdint>

#include "pkcs11/cryptoki.h"

namespace qixx::pkcs11 {

/// An attribute of the suite's certificate objects, eight bytes. Nothing here interprets it.
inline constexpr CK_ATTRIBUTE_TYPE kSuiteAttribute = 0xFFFF0008;

/// An argument that is only passed on: a number or a pointer, one machine word.
using ExtensionWord = std::uintptr_t;

extern "C" {
using ReinitializeFunction = CK_RV (*)(CK_VOID_PTR initArgs);
using SetPinExFunction = CK_RV (*)(CK_SESSION_HANDLE session, CK_UTF8CHAR_PTR oldPin,
                                   CK_ULONG oldPinLength, CK_UTF8CHAR_PTR newPin,
                                   CK_ULONG newPinLength, std::uint64_t extra);
using ListCardsFunction = CK_RV (*)(CK_BYTE flag, CK_VOID_PTR first, CK_VOID_PTR second);
using ExtensionFunction1 = CK_RV (*)(ExtensionWord);
using ExtensionFunction2 = CK_RV (*)(ExtensionWord, ExtensionWord);
using ExtensionFunction3 = CK_RV (*)(ExtensionWord, ExtensionWord, ExtensionWord);
using ExtensionFunction5 = CK_RV (*)(ExtensionWord, ExtensionWord, ExtensionWord, ExtensionWord,
                                     ExtensionWord);
}

/// The eleven slots in their order.
struct ExtensionSlots {
  ReinitializeFunction C_Reinitialize;
  ExtensionFunction3 C_ResetToken;
  ExtensionFunction5 C_UnlockPIN;
  SetPinExFunction C_SetPINEx;
  ExtensionFunction1 C_SetTraceFile;
  ExtensionFunction1 C_SetTraceCallback;
  CK_VOID_PTR unused;  ///< belongs to the library, neither read nor written
  ExtensionFunction3 C_GenerateChallenge;
  ExtensionFunction2 C_SetTokenTimeout;
  ExtensionFunction2 C_SetVariable;
  ExtensionFunction3 C_GetVariable;
};

/// What the suite's C_GetFunctionList hands out.
struct ExtendedFunctionList {
  CK_FUNCTION_LIST standard;
  ExtensionSlots extension;
};

static_assert(offsetof(ExtendedFunctionList, extension) == sizeof(CK_FUNCTION_LIST),
              "the slots follow the standard list without a gap");
static_assert(sizeof(ExtensionSlots) == 11 * sizeof(void*));

}  // namespace qixx::pkcs11
