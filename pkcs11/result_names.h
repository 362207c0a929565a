// The results of PKCS#11 functions in words.
#pragma once

#include <string>

#include "pkcs11/cryptoki.h"

namespace qixx::pkcs11 {

/// The standard's name of a result, "CKR_TOKEN_NOT_PRESENT"; of one without such a name its number,
/// "0x80000001".
[[nodiscard]] std::string ResultName(CK_RV result);

}  // namespace qixx::pkcs11
