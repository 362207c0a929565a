// Calling one function of the library: the one place at which the wrapper does.
#pragma once

#include "pkcs11/cryptoki.h"
#include "runtime/library_call.h"
#include "runtime/trace.h"

namespace qixx::pkcs11 {

using CallListener = void (*)();
/// Has the listener called behind each call that came back, by the thread that called; null for
/// none.
void ListenToCalls(CallListener listener);
/// Calls it.
void NoteCall();

/// A function of the library, ready to be called. The call gives what the function answers, or
/// CKR_GENERAL_ERROR and a trace line when it does not come back but throws or ends its thread.
template <typename Function>
class FunctionOf {
 public:
  FunctionOf(const char* name, Function function) : name_(name), function_(function) {}

  template <typename... Arguments>
  CK_RV operator()(Arguments... arguments) const {
    CK_RV result = CKR_GENERAL_ERROR;
    const bool returned = runtime::CallLibrary([&] { result = function_(arguments...); });
    NoteCall();
    if (returned) return result;
    runtime::TraceWrite("WrapperPkcs11 - Exception in %s", name_);
    return CKR_GENERAL_ERROR;
  }

 private:
  const char* name_;
  Function function_;
};

}  // namespace qixx::pkcs11
