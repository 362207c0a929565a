// Misbehaviour on request: the file "module" in the folder of the readers.
#pragma once

#include <optional>
#include <string_view>

#include "pkcs11/cryptoki.h"

namespace qixx::softcard {

/// The answer that a line "fail=FUNCTION:VALUE" prescribes for this call, which then does nothing
/// else. With a line "log=1" the name of the function is also appended to the file "calls".
/// The file is read anew for each call, so that a test may change it at any time.
[[nodiscard]] std::optional<CK_RV> FaultOf(std::string_view function);

/// Throws with a line "throw=FUNCTION", ends the thread with a line "exit=FUNCTION", and waits
/// while there is a line "hang=FUNCTION".
void Misbehave(std::string_view function);

/// True with a line "omit=FUNCTION".
[[nodiscard]] bool IsOmitted(std::string_view function);

}  // namespace qixx::softcard
