// The way into the module: its life from C_Initialize to C_Finalize, its lock, its function list.
//
// Every call, served or not, passes the file of faults first. All may be called from any thread;
// one call runs at a time, and a thread waiting for a slot event lets the others in.
#pragma once

#include "pkcs11/cryptoki.h"

namespace qixx::softcard {

/// What one build of the module is, given by the unit that exports its functions.
struct Variant {
  /// Room for the list that is handed out; what lies behind the standard list is not touched.
  CK_FUNCTION_LIST* list;
  /// Whether certificates carry the suite's own attribute.
  bool suite;
};
[[nodiscard]] Variant ThisVariant();

/// C_GetFunctionList. The list is filled when it is first handed out, without the functions omitted
/// then; with C_GetFunctionList itself omitted there is success and no list.
[[nodiscard]] CK_RV GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list);

/// C_Reinitialize: ends all sessions and begins again, also where nothing was begun.
[[nodiscard]] CK_RV Reinitialize(CK_VOID_PTR initArgs);
/// C_ListCards: C_GetSlotList under another name.
[[nodiscard]] CK_RV ListCards(CK_BYTE tokenPresent, CK_VOID_PTR slots, CK_VOID_PTR count);
/// The answer of an extension function that the module does not serve: the prescribed one, else
/// CKR_FUNCTION_NOT_SUPPORTED.
[[nodiscard]] CK_RV RefuseExtension(const char* function);

}  // namespace qixx::softcard
