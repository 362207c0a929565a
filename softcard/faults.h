// Misbehaviour on request: the file "module" in the folder of the readers.
#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "pkcs11/cryptoki.h"
#include "softcard/files.h"

namespace qixx::softcard {

/// The file "module" is read anew for each call, so that a test may change it at any time. Throws
/// with a line "throw=FUNCTION", ends the thread with a line "exit=FUNCTION", and waits while there
/// is a line "hang=FUNCTION". Returns what the file holds then.
std::vector<Setting> Misbehave(std::string_view function);

/// Notes the call in the file "calls" where a line "log=1" asks for it, and gives the answer that a
/// line "fail=FUNCTION:VALUE" prescribes for it, which then does nothing else.
[[nodiscard]] std::optional<CK_RV> NoteCall(std::string_view function,
                                            const std::vector<Setting>& orders);

/// True with a line "omit=FUNCTION".
[[nodiscard]] bool IsOmitted(std::string_view function);

}  // namespace qixx::softcard
