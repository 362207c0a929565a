// A PKCS#11 module whose functions stand in the test. Built several times, since only the set of
// exported names tells modules apart before they are called: QIXX_FAKE_LIST has C_GetFunctionList,
// QIXX_FAKE_EXTENSIONS the suite's extension functions but C_SetVariable, QIXX_FAKE_SET_VARIABLE
// that one too. An extension function answers with its number and its arguments as digits.
#include "tests/pkcs11/fake_module.h"

#include <cstdint>

namespace {
qixx::testing::FakeAnswer answer = {CKR_OK, nullptr};
}

QIXX_CK_EXPORT qixx::testing::FakeAnswer* FakeModuleAnswer() {
  return &answer;
}

#ifdef QIXX_FAKE_LIST
CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
  *list = answer.list;
  return answer.result;
}
#endif

namespace {

template <typename... Arguments>
[[maybe_unused]] CK_RV Digits(Arguments... arguments) {
  CK_RV digits = 0;
  ((digits = digits * 10 + static_cast<CK_RV>(arguments)), ...);
  return digits;
}

using Word [[maybe_unused]] = std::uintptr_t;

}  // namespace

#ifdef QIXX_FAKE_EXTENSIONS
QIXX_CK_EXPORT CK_RV C_Reinitialize(CK_VOID_PTR a) {
  return Digits(1, reinterpret_cast<Word>(a));
}
QIXX_CK_EXPORT CK_RV C_ResetToken(Word a, Word b, Word c) {
  return Digits(2, a, b, c);
}
QIXX_CK_EXPORT CK_RV C_UnlockPIN(Word a, Word b, Word c, Word d, Word e) {
  return Digits(3, a, b, c, d, e);
}
QIXX_CK_EXPORT CK_RV C_SetPINEx(CK_SESSION_HANDLE session, CK_UTF8CHAR_PTR, CK_ULONG oldLength,
                                CK_UTF8CHAR_PTR, CK_ULONG newLength, std::uint64_t extra) {
  return Digits(4, session, oldLength, newLength, extra);
}
QIXX_CK_EXPORT CK_RV C_SetTraceFile(Word a) {
  return Digits(5, a);
}
QIXX_CK_EXPORT CK_RV C_SetTraceCallback(Word a) {
  return Digits(6, a);
}
QIXX_CK_EXPORT CK_RV C_GenerateChallenge(Word a, Word b, Word c) {
  return Digits(8, a, b, c);
}
QIXX_CK_EXPORT CK_RV C_SetTokenTimeout(Word a, Word b) {
  return Digits(9, a, b);
}
QIXX_CK_EXPORT CK_RV C_GetVariable(Word a, Word b, Word c) {
  return Digits(11, a, b, c);
}
QIXX_CK_EXPORT CK_RV C_ListCards(CK_BYTE flag, CK_VOID_PTR, CK_VOID_PTR) {
  return flag;
}
QIXX_CK_EXPORT CK_RV C_RemoveExternalSlot(Word a) {
  return Digits(14, a);
}
#endif

#ifdef QIXX_FAKE_SET_VARIABLE
QIXX_CK_EXPORT CK_RV C_SetVariable(Word a, Word b) {
  return Digits(10, a, b);
}
#endif
