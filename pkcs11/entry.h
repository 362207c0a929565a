// For modules of our own: how their entry points answer.
#pragma once

#include <new>

#include "pkcs11/cryptoki.h"

namespace qixx::pkcs11 {

/// Runs the deed of an entry point. Nothing is thrown across: memory that ran out is
/// CKR_HOST_MEMORY, anything else that was thrown, by whomever, CKR_GENERAL_ERROR.
template <typename Operation>
CK_RV AnswerOf(const Operation& operation) noexcept {
  try {
    return operation();
  } catch (const std::bad_alloc&) {
    return CKR_HOST_MEMORY;
  } catch (...) {
    return CKR_GENERAL_ERROR;
  }
}

}  // namespace qixx::pkcs11
