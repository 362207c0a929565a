// Calling one function of the library: the one place at which the wrapper does.
#pragma once

#include "pkcs11/cryptoki.h"
#include "runtime/library_call.h"
#include "runtime/trace.h"

namespace qixx::pkcs11 {

using CallListener = void (*)();
/// Has the listener called behind each call of a FunctionOf, also one that did not come back, by
/// the thread that called; null for none.
void ListenToCalls(CallListener listener);
/// Calls it.
void NoteCall();

/// Runs a call of that function of the library. False, with a trace line, when it does not come
/// back but throws or ends its thread; see runtime::CallLibrary for what it may hold.
template <typename Operation>
[[nodiscard]] bool CallFunction(const char* name, const Operation& operation) {
  if (runtime::CallLibrary(operation)) return true;
  runtime::TraceWrite("WrapperPkcs11 - Exception in %s", name);
  return false;
}

/// A function of the library, ready to be called. The call gives what the function answers,
/// CKR_FUNCTION_NOT_SUPPORTED for a null one, or CKR_GENERAL_ERROR and a trace line when it does
/// not come back but throws or ends its thread.
template <typename Function>
class FunctionOf {
 public:
  FunctionOf(const char* name, Function function) : name_(name), function_(function) {}

  template <typename... Arguments>
  CK_RV operator()(Arguments... arguments) const {
    if (function_ == nullptr) return CKR_FUNCTION_NOT_SUPPORTED;
    CK_RV result = CKR_GENERAL_ERROR;
    const bool returned = CallFunction(name_, [&] { result = function_(arguments...); });
    NoteCall();
    return returned ? result : CKR_GENERAL_ERROR;
  }

 private:
  const char* name_;
  Function function_;
};

}  // namespace qixx::pkcs11
