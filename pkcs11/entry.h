// For modules of our own: turning exceptions into results at their entry points.
#pragma once

#include <cxxabi.h>

#include <new>

#include "pkcs11/cryptoki.h"

namespace qixx::pkcs11 {

/// Calls `operation` and returns its result. Maps bad_alloc to CKR_HOST_MEMORY, any other exception
/// to CKR_GENERAL_ERROR. The end of the thread (pthread_exit by a module below) goes on to whoever
/// called: the process ends where it is caught and kept. It has no exception object, which the
/// undefined-behaviour sanitizer would report.
template <typename Operation>
[[gnu::noinline]] __attribute__((no_sanitize("null"))) CK_RV AnswerOf(const Operation& operation) {
  try {
    return operation();
  } catch (const std::bad_alloc&) {
    return CKR_HOST_MEMORY;
  } catch (const abi::__forced_unwind&) {
    throw;
  } catch (...) {
    return CKR_GENERAL_ERROR;
  }
}

}  // namespace qixx::pkcs11
