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

/// Card readers have slots up to here; the suite's own lie above.
inline constexpr CK_SLOT_ID kLastReaderSlot = 99;
/// Slots are numbered in groups of so many up to this one, from then on each stands alone. The
/// first of a group stands for all of it.
inline constexpr CK_SLOT_ID kSlotGroupSize = 3;
inline constexpr CK_SLOT_ID kLastGroupedSlot = 96;

}  // namespace qixx::pkcs11

// The extension functions, as X(name, parameters, arguments) like QIXX_CK_FUNCTIONS: callers,
// pointer types and exports are all made from this one list. Its parts follow the slots; slot 7
// belongs to the library alone. A CK_ULONG is a number or a pointer that is only passed on.

#define QIXX_CK_SLOTS_1_TO_6(X)                                                                    \
  X(Reinitialize, (CK_VOID_PTR initArgs), (initArgs))                                              \
  X(ResetToken, (CK_ULONG first, CK_ULONG second, CK_ULONG third), (first, second, third))         \
  X(UnlockPIN, (CK_ULONG first, CK_ULONG second, CK_ULONG third, CK_ULONG fourth, CK_ULONG fifth), \
    (first, second, third, fourth, fifth))                                                         \
  X(SetPINEx,                                                                                      \
    (CK_SESSION_HANDLE session, CK_UTF8CHAR_PTR oldPin, CK_ULONG oldPinLength,                     \
     CK_UTF8CHAR_PTR newPin, CK_ULONG newPinLength, std::uint64_t extra),                          \
    (session, oldPin, oldPinLength, newPin, newPinLength, extra))                                  \
  X(SetTraceFile, (CK_ULONG first), (first))                                                       \
  X(SetTraceCallback, (CK_ULONG first), (first))

#define QIXX_CK_SLOTS_8_TO_9(X)                                                                   \
  X(GenerateChallenge, (CK_ULONG first, CK_ULONG second, CK_ULONG third), (first, second, third)) \
  X(SetTokenTimeout, (CK_ULONG first, CK_ULONG second), (first, second))

/// The token variables.
#define QIXX_CK_SLOTS_10_TO_11(X)                                    \
  X(SetVariable, (CK_ULONG first, CK_ULONG second), (first, second)) \
  X(GetVariable, (CK_ULONG first, CK_ULONG second, CK_ULONG third), (first, second, third))

/// Exported, but without a slot: found by name only.
#define QIXX_CK_WITHOUT_SLOT(X)                                                                 \
  X(ListCards, (CK_BYTE flag, CK_VOID_PTR first, CK_VOID_PTR second), (flag, first, second))    \
  X(AddExternalSlot, (CK_ULONG first, CK_ULONG second, CK_ULONG third), (first, second, third)) \
  X(RemoveExternalSlot, (CK_ULONG first), (first))

#define QIXX_CK_EXTENSIONS(X) \
  QIXX_CK_SLOTS_1_TO_6(X)     \
  QIXX_CK_SLOTS_8_TO_9(X)     \
  QIXX_CK_SLOTS_10_TO_11(X)   \
  QIXX_CK_WITHOUT_SLOT(X)

namespace qixx::pkcs11 {

// The pointer types, ReinitializeFunction to RemoveExternalSlotFunction.
extern "C" {
#define QIXX_CK_POINTER_TYPE(name, parameters, arguments) \
  using name##Function = CK_RV(*) parameters;  // NOLINT(bugprone-macro-parentheses)
QIXX_CK_EXTENSIONS(QIXX_CK_POINTER_TYPE)
#undef QIXX_CK_POINTER_TYPE

/// "QixEventDescriptor", which any library may export; see CWrapperPkcs11::EventDescriptor.
using EventDescriptorFunction = int (*)();
/// "QixSlotCounts", which any library may export: whether it tells events of a slot, 1 or 0, or -1
/// when it does not know the slot.
using SlotCountsFunction = int (*)(CK_SLOT_ID slot);
/// "QixPassOver", which any library may export: the caller takes no notice of the card that is in
/// the slot.
using PassOverFunction = void (*)(CK_SLOT_ID slot);
/// "QixModuleFault", which any library may export: why the last C_Initialize found no module for it
/// to stand on, null or empty when it did. The text is the library's, up to the next C_Initialize.
using ModuleFaultFunction = const char* (*)();
}

/// The eleven slots in their order.
struct ExtensionSlots {
#define QIXX_CK_MEMBER(name, parameters, arguments) name##Function C_##name;
  QIXX_CK_SLOTS_1_TO_6(QIXX_CK_MEMBER)
  CK_VOID_PTR unused;  ///< belongs to the library, neither read nor written
  QIXX_CK_SLOTS_8_TO_9(QIXX_CK_MEMBER)
  QIXX_CK_SLOTS_10_TO_11(QIXX_CK_MEMBER)
#undef QIXX_CK_MEMBER
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
