// A module with all functions of the standard, and those of the suite that no list has. Each
// succeeds but for the one call that a test chooses: that one throws, or ends its thread.
#include <pthread.h>

#include <stdexcept>
#include <string>

#include "pkcs11/extended.h"

namespace {

std::string chosen;
int callsLeft = 0;
bool endsThread = false;

CK_RV Answer(const char* function) {
  if (chosen != function || --callsLeft != 0) return CKR_OK;
  if (endsThread) ::pthread_exit(nullptr);
  throw std::runtime_error(function);
}

}  // namespace

/// Chooses the call of that number, from one, from now on.
QIXX_CK_EXPORT void HostileModuleChoose(const char* function, int call, bool ends) {
  chosen = function;
  callsLeft = call;
  endsThread = ends;
}

QIXX_CK_EXPORT int QixEventDescriptor() {
  return Answer("QixEventDescriptor"), 7;
}
QIXX_CK_EXPORT int QixSlotCounts(CK_SLOT_ID /*slot*/) {
  return Answer("QixSlotCounts"), 1;
}
QIXX_CK_EXPORT void QixPassOver(CK_SLOT_ID /*slot*/) {
  Answer("QixPassOver");
}
QIXX_CK_EXPORT const char* QixModuleFault() {
  return Answer("QixModuleFault"), "no module";
}

CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
  static qixx::pkcs11::ExtendedFunctionList functions;
#define HOSTILE_FILL(name, parameters, arguments) \
  functions.standard.C_##name = [](auto...) { return Answer("C_" #name); };
  QIXX_CK_FUNCTIONS(HOSTILE_FILL)
#undef HOSTILE_FILL
  if (list != nullptr) *list = &functions.standard;
  return Answer("C_GetFunctionList");
}
