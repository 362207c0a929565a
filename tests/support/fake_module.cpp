// A standard PKCS#11 module whose functions stand in the test that loads it.
#include "pkcs11/cryptoki.h"

namespace {
CK_RV answer = CKR_OK;
CK_FUNCTION_LIST_PTR functions = nullptr;
}  // namespace

/// Says what C_GetFunctionList answers from now on.
QIXX_CK_EXPORT void FakeModuleAnswer(CK_RV result, CK_FUNCTION_LIST_PTR list) {
  answer = result;
  functions = list;
}

CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
  *list = functions;
  return answer;
}
