// spare: asked of this layer by the suite's design, built, called by nothing in this
// program.
#pragma once

#include <optional>

#include "pkcs11/session.h"

namespace qixx::pkcs11 {

/// The object with a token's variables (pkcs11/token_variables.h), there is one of each privacy;
/// makes one without variables where the token has none. Slot 0 has none.
[[nodiscard]] std::optional<SessionObject> FindOrCreateVariableObject(CK_SLOT_ID slot,
                                                                      bool isPrivate);

}  // namespace qixx::pkcs11
