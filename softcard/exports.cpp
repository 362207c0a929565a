// What the module exports. Built once for each variant, with SOFTCARD_EXTENSIONS giving how much of
// the suite's extension it has: 2 all of it, 1 all but the two functions for variables, 0 none. A
// function that is left out must not be exported at all, which no setting at run time could bring
// about.

#include "pkcs11/extended.h"
#include "softcard/entries.h"

QIXX_CK_EXPORT CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
  return qixx::softcard::GetFunctionList(list);
}

#if SOFTCARD_EXTENSIONS > 0

namespace {

struct Refusal {
  const char* function;

  template <typename... Arguments>
  CK_RV operator()(const Arguments&... /*unused*/) const {
    return qixx::softcard::RefuseExtension(function);
  }
};

struct RefusingEntries {
#define SOFTCARD_REFUSE(name, parameters, arguments) \
  [[maybe_unused]] static constexpr Refusal name{"C_" #name};
  QIXX_CK_EXTENSIONS(SOFTCARD_REFUSE)
#undef SOFTCARD_REFUSE
};

/// Those that the module serves.
struct Entries : RefusingEntries {
  static CK_RV Reinitialize(CK_VOID_PTR initArgs) { return qixx::softcard::Reinitialize(initArgs); }
  static CK_RV ListCards(CK_BYTE tokenPresent, CK_VOID_PTR slots, CK_VOID_PTR count) {
    return qixx::softcard::ListCards(tokenPresent, slots, count);
  }
};

}  // namespace

#define SOFTCARD_EXPORT(name, parameters, arguments) \
  QIXX_CK_EXPORT CK_RV C_##name parameters {         \
    return Entries::name arguments;                  \
  }
QIXX_CK_SLOTS_1_TO_6(SOFTCARD_EXPORT)
QIXX_CK_SLOTS_8_TO_9(SOFTCARD_EXPORT)
QIXX_CK_WITHOUT_SLOT(SOFTCARD_EXPORT)
#if SOFTCARD_EXTENSIONS > 1
QIXX_CK_SLOTS_10_TO_11(SOFTCARD_EXPORT)
#endif
#undef SOFTCARD_EXPORT

/// The slots behind the standard list stay empty: the one who loads the module fills them in.
qixx::softcard::Variant qixx::softcard::ThisVariant() {
  static qixx::pkcs11::ExtendedFunctionList list;
  return {&list.standard, true};
}

#else

qixx::softcard::Variant qixx::softcard::ThisVariant() {
  static CK_FUNCTION_LIST list;
  return {&list, false};
}

#endif
