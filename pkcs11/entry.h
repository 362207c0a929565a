// For modules of our own: what their entry points have in common.
#pragma once

#include <cxxabi.h>

#include <algorithm>
#include <new>
#include <span>

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

/// Any function that a module does not serve.
template <CK_RV kAnswer = CKR_FUNCTION_NOT_SUPPORTED, typename... Arguments>
CK_RV Refuse(Arguments... /*unused*/) {
  return kAnswer;
}

/// The convention of every call that hands out a list: its length for a null list, and with
/// CKR_BUFFER_TOO_SMALL.
inline CK_RV HandOut(std::span<const CK_ULONG> values, CK_ULONG_PTR list, CK_ULONG_PTR count) {
  if (count == nullptr) return CKR_ARGUMENTS_BAD;
  const CK_ULONG room = *count;
  *count = values.size();
  if (list == nullptr) return CKR_OK;
  if (room < values.size()) return CKR_BUFFER_TOO_SMALL;
  std::ranges::copy(values, list);
  return CKR_OK;
}

}  // namespace qixx::pkcs11
