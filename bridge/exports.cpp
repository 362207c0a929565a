// What the bridge exports: C_GetFunctionList and the extension's functions. Those that no standard
// module could serve refuse.

#include <bit>
#include <cstdint>

#include "bridge/entries.h"
#include "pkcs11/extended.h"

namespace {

using Word = qixx::pkcs11::ExtensionWord;

template <typename Value>
Value* PointerOf(Word word) {
  return std::bit_cast<Value*>(word);
}

}  // namespace

QIXX_CK_EXPORT CK_RV C_Reinitialize(CK_VOID_PTR initArgs) {
  return qixx::bridge::Reinitialize(initArgs);
}
QIXX_CK_EXPORT CK_RV C_ListCards(CK_BYTE tokenPresent, CK_VOID_PTR slots, CK_VOID_PTR count) {
  return qixx::bridge::ListCards(tokenPresent, slots, count);
}
QIXX_CK_EXPORT CK_RV C_SetVariable(Word name, Word value) {
  return qixx::bridge::SetVariable(PointerOf<const char>(name), PointerOf<const char>(value));
}
QIXX_CK_EXPORT CK_RV C_GetVariable(Word name, Word value, Word length) {
  return qixx::bridge::GetVariable(PointerOf<const char>(name), PointerOf<char>(value),
                                   PointerOf<CK_ULONG>(length));
}

#define BRIDGE_REFUSED(name, ...)          \
  QIXX_CK_EXPORT CK_RV name(__VA_ARGS__) { \
    return CKR_FUNCTION_NOT_SUPPORTED;     \
  }
BRIDGE_REFUSED(C_ResetToken, Word, Word, Word)
BRIDGE_REFUSED(C_UnlockPIN, Word, Word, Word, Word, Word)
BRIDGE_REFUSED(C_SetPINEx, CK_SESSION_HANDLE, CK_UTF8CHAR_PTR, CK_ULONG, CK_UTF8CHAR_PTR, CK_ULONG,
               std::uint64_t)
BRIDGE_REFUSED(C_SetTraceFile, Word)
BRIDGE_REFUSED(C_SetTraceCallback, Word)
BRIDGE_REFUSED(C_GenerateChallenge, Word, Word, Word)
BRIDGE_REFUSED(C_SetTokenTimeout, Word, Word)
BRIDGE_REFUSED(C_AddExternalSlot, Word, Word, Word)
BRIDGE_REFUSED(C_RemoveExternalSlot, Word)

QIXX_CK_EXPORT CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
  // Not constant: who loads the library writes what it finds by name into the extension's slots.
  static qixx::pkcs11::ExtendedFunctionList functions = {
      qixx::bridge::StandardFunctions(),
      {&C_Reinitialize, &C_ResetToken, &C_UnlockPIN, &C_SetPINEx, &C_SetTraceFile,
       &C_SetTraceCallback, nullptr, &C_GenerateChallenge, &C_SetTokenTimeout, &C_SetVariable,
       &C_GetVariable}};
  if (list == nullptr) return CKR_ARGUMENTS_BAD;
  *list = &functions.standard;
  return CKR_OK;
}
