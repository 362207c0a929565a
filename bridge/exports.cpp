// What the bridge exports: C_GetFunctionList, the extension's functions, and the descriptor that
// becomes readable with an event. Functions that no standard module could serve refuse.

#include <bit>

#include "bridge/entries.h"
#include "pkcs11/extended.h"

namespace {

using qixx::pkcs11::ExtensionWord;

struct RefusingEntries {
#define BRIDGE_REFUSE(name, parameters, arguments) \
  static CK_RV name parameters {                   \
    return Refuse arguments;                       \
  }
  QIXX_CK_EXTENSIONS(BRIDGE_REFUSE)
#undef BRIDGE_REFUSE

 private:
  template <typename... Arguments>
  static CK_RV Refuse(const Arguments&... /*unused*/) {
    return CKR_FUNCTION_NOT_SUPPORTED;
  }
};

/// Those that the bridge serves.
struct Entries : RefusingEntries {
  static CK_RV Reinitialize(CK_VOID_PTR initArgs) { return qixx::bridge::Reinitialize(initArgs); }
  static CK_RV ListCards(CK_BYTE tokenPresent, CK_VOID_PTR slots, CK_VOID_PTR count) {
    return qixx::bridge::ListCards(tokenPresent, slots, count);
  }
  static CK_RV SetVariable(ExtensionWord name, ExtensionWord value) {
    return qixx::bridge::SetVariable(std::bit_cast<const char*>(name),
                                     std::bit_cast<const char*>(value));
  }
  static CK_RV GetVariable(ExtensionWord name, ExtensionWord value, ExtensionWord length) {
    return qixx::bridge::GetVariable(std::bit_cast<const char*>(name), std::bit_cast<char*>(value),
                                     std::bit_cast<CK_ULONG_PTR>(length));
  }
};

}  // namespace

#define BRIDGE_EXPORT(name, parameters, arguments) \
  QIXX_CK_EXPORT CK_RV C_##name parameters {       \
    return Entries::name arguments;                \
  }
QIXX_CK_EXTENSIONS(BRIDGE_EXPORT)
#undef BRIDGE_EXPORT

QIXX_CK_EXPORT int QixEventDescriptor() {
  return qixx::bridge::DescribeEvents();
}

QIXX_CK_EXPORT int QixSlotCounts(CK_SLOT_ID slot) {
  return qixx::bridge::SlotCounts(slot);
}

QIXX_CK_EXPORT const char* QixModuleFault() {
  return qixx::bridge::ModuleFault();
}

QIXX_CK_EXPORT CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
#define BRIDGE_SLOT(name, parameters, arguments) &C_##name,
  // Not constant: who loads the library writes what it finds by name into the extension's slots.
  static qixx::pkcs11::ExtendedFunctionList functions = {
      qixx::bridge::StandardFunctions(),
      {QIXX_CK_SLOTS_1_TO_6(BRIDGE_SLOT) nullptr,
       QIXX_CK_SLOTS_8_TO_9(BRIDGE_SLOT) QIXX_CK_SLOTS_10_TO_11(BRIDGE_SLOT)}};
#undef BRIDGE_SLOT
  if (list == nullptr) return CKR_ARGUMENTS_BAD;
  *list = &functions.standard;
  return CKR_OK;
}
