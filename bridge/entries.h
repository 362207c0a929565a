// The bridge's PKCS#11 functions: the standard's, and the suite's extension.
//
// All may be called from any thread, as far as the module beneath allows; the bridge has one lock
// of its own, which is held for the numbers of the slots and for events, not while a call goes on
// into the module with a session. In a forked child nothing is initialised. Nothing is thrown
// across.
#pragma once

#include "pkcs11/cryptoki.h"

namespace qixx::bridge {

/// The standard's functions; C_GetFunctionList hands them out.
[[nodiscard]] CK_FUNCTION_LIST StandardFunctions();

/// C_Reinitialize: ends all sessions and begins again.
[[nodiscard]] CK_RV Reinitialize(CK_VOID_PTR initArgs);
/// C_ListCards: C_GetSlotList under another name.
[[nodiscard]] CK_RV ListCards(CK_BYTE tokenPresent, CK_VOID_PTR slots, CK_VOID_PTR count);
/// C_GetVariable: copies a token variable of the first token into `value`, whose size goes in and
/// whose length comes out by `length`, as with an attribute's value: a null `value` asks for the
/// length. CKR_DATA_INVALID when there is no such variable.
[[nodiscard]] CK_RV GetVariable(const char* name, char* value, CK_ULONG_PTR length);
/// C_SetVariable: writes a token variable to the first token; a null or empty value takes it away.
/// The token decides whether that takes a login, which is the caller's business.
[[nodiscard]] CK_RV SetVariable(const char* name, const char* value);

/// The descriptor for QixEventDescriptor: readable when a poll for slot events would have something
/// to tell, as far as PC/SC knows; a poll that leaves nothing makes it unreadable. The same for the
/// life of the process, close-on-exec, and not the caller's to read or close; without PC/SC, and in
/// a forked child before its C_Initialize, -1. The first call starts a thread of the bridge's own,
/// which runs between C_Initialize and C_Finalize.
[[nodiscard]] int DescribeEvents();

/// Whether events of the slot are told, 1 or 0; -1 for an unknown slot and without a module.
[[nodiscard]] int SlotCounts(CK_SLOT_ID number);
/// Why the last C_Initialize found no module, empty when it found one. Holds up to the next one.
[[nodiscard]] const char* ModuleFault();

}  // namespace qixx::bridge
