// The small store of names and values that the suite keeps on a token as a data object.
//
// Found by class, application "Tessaly" and an empty label, public, on the token; its value is as
// pkcs11/token_variables.h has it.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "pkcs11/cryptoki.h"

namespace qixx::bridge {

struct VariableAnswer {
  /// CKR_DATA_INVALID when the token has no such variable; else what the module answers.
  CK_RV result;
  std::string value;  ///< for CKR_OK
};

/// `slot` is the module's. May throw std::bad_alloc.
[[nodiscard]] VariableAnswer ReadVariable(const CK_FUNCTION_LIST& module, CK_SLOT_ID slot,
                                          std::string_view name);
/// Writes the store anew, making it where there is none; an empty value takes the variable away.
/// CKR_ARGUMENTS_BAD for a text that the store cannot hold.
CK_RV WriteVariable(const CK_FUNCTION_LIST& module, CK_SLOT_ID slot, std::string_view name,
                    std::string_view value);

}  // namespace qixx::bridge
