// What the module exports. Built once for each variant, with SOFTCARD_EXTENSIONS giving how much of
// the suite's extension it has: 2 all of it, 1 all but the two functions for variables, 0 none. A
// function that is left out must not be exported at all, which no setting at run time could bring
// about.

#include <cstdint>

#include "pkcs11/extended.h"
#include "softcard/entries.h"

namespace {

using Word = qixx::pkcs11::ExtensionWord;

}  // namespace

QIXX_CK_EXPORT CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
  return qixx::softcard::GetFunctionList(list);
}

#if SOFTCARD_EXTENSIONS > 0

#define SOFTCARD_REFUSED(name, ...)                \
  QIXX_CK_EXPORT CK_RV name(__VA_ARGS__) {         \
    return qixx::softcard::RefuseExtension(#name); \
  }

QIXX_CK_EXPORT CK_RV C_Reinitialize(CK_VOID_PTR init_args) {
  return qixx::softcard::Reinitialize(init_args);
}
QIXX_CK_EXPORT CK_RV C_ListCards(CK_BYTE token_present, CK_VOID_PTR slots, CK_VOID_PTR count) {
  return qixx::softcard::ListCards(token_present, slots, count);
}
SOFTCARD_REFUSED(C_ResetToken, Word, Word, Word)
SOFTCARD_REFUSED(C_UnlockPIN, Word, Word, Word, Word, Word)
SOFTCARD_REFUSED(C_SetPINEx, CK_SESSION_HANDLE, CK_UTF8CHAR_PTR, CK_ULONG, CK_UTF8CHAR_PTR,
                 CK_ULONG, std::uint64_t)
SOFTCARD_REFUSED(C_SetTraceFile, Word)
SOFTCARD_REFUSED(C_SetTraceCallback, Word)
SOFTCARD_REFUSED(C_GenerateChallenge, Word, Word, Word)
SOFTCARD_REFUSED(C_SetTokenTimeout, Word, Word)
SOFTCARD_REFUSED(C_AddExternalSlot, Word, Word, Word)
SOFTCARD_REFUSED(C_RemoveExternalSlot, Word)
#if SOFTCARD_EXTENSIONS > 1
SOFTCARD_REFUSED(C_SetVariable, Word, Word)
SOFTCARD_REFUSED(C_GetVariable, Word, Word, Word)
#endif

/// The slots behind the standard list stay empty: the one who loads the module fills them in.
qixx::softcard::Variant qixx::softcard::ThisVariant() {
  static qixx::pkcs11::ExtendedFunctionList list;
  return {&list.standard, true};
}

#else

qixx::softcard::Variant qixx::softcard::ThisVariant() {
  static CK_FUNCTION_LIST list;
  return {&list, false};
}

#endif
