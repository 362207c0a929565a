// The data object in which the suite keeps the variables of a token.
#pragma once

#include <optional>
#include <vector>

#include "pkcs11/session.h"

namespace qixx::pkcs11 {

/// An object with the session in which it can be used.
struct SessionObject {
  Session session;
  CK_OBJECT_HANDLE object;
};

/// Finds the object; there is one of each privacy. Slot 0 has none.
[[nodiscard]] std::optional<SessionObject> FindVariableObject(CK_SLOT_ID slot, bool isPrivate);

/// The stored text of the object (pkcs11/token_variables.h); nothing when the library does not give
/// it, or claims more than 1 MiB.
[[nodiscard]] std::optional<std::vector<CK_BYTE>> ReadVariables(const SessionObject& found);

}  // namespace qixx::pkcs11
