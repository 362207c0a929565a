// Misbehaviour on request: the file "module" in the folder of the readers.
#pragma once

#include <optional>
#include <string_view>

#include "pkcs11/cryptoki.h"

namespace qixx::softcard {

/// Notes the call in the file "calls" where a line "log=1" asks for it, and gives the answer that a
/// line "fail=FUNCTION:VALUE" prescribes for it, which then does nothing else. The file "module" is
/// read anew for each call, so that a test may change it at any time.
[[nodiscard]] std::optional<CK_RV> NoteCall(std::string_view function);

/// Throws with a line "throw=FUNCTION", ends the thread with a line "exit=FUNCTION", and waits
/// while there is a line "hang=FUNCTION".
void Misbehave(std::string_view function);

/// True with a line "omit=FUNCTION".
[[nodiscard]] bool IsOmitted(std::string_view function);

}  // namespace qixx::softcard
