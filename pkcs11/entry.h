// For modules of our own: turning exceptions into results at their entry points.
#pragma once

#include <new>

#include "pkcs11/cryptoki.h"

namespace qixx::pkcs11 {

/// Calls `operation` and returns its result. Maps bad_alloc to CKR_HOST_MEMORY, any other exception
/// to CKR_GENERAL_ERROR.
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
