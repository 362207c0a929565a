// What a fake module hands out: the test that loads it says so.
#pragma once

#include "pkcs11/cryptoki.h"

namespace qixx::testing {

struct FakeAnswer {
  CK_RV result;  ///< of C_GetFunctionList
  CK_FUNCTION_LIST_PTR list;
};

/// Every fake module exports FakeModuleAnswer, which tells where it keeps its answer.
using FakeModuleAnswerFunction = FakeAnswer* (*)();

}  // namespace qixx::testing
