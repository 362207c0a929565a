// spare: asked of this layer by the suite's design, built and tested, called by nothing in this
// program.
#pragma once

#include <optional>

#include "pkcs11/variable_object.h"

namespace qixx::pkcs11 {

/// FindVariableObject, making an object without variables where the token has none.
[[nodiscard]] std::optional<SessionObject> FindOrCreateVariableObject(CK_SLOT_ID slot,
                                                                      bool isPrivate);

}  // namespace qixx::pkcs11
