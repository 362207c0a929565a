// The words of a listing that are the same in both of its forms.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "pkcs11/cryptoki.h"
#include "watch/list.h"

namespace qixx::watch {

[[nodiscard]] Wording WordingOf(Verdict verdict);
/// The flags of a token, without "CKF_" and in small letters; those without a name are left out.
[[nodiscard]] std::vector<std::string> TokenFlagNames(CK_FLAGS flags);
/// Of key-usage bits (RFC 5280, 4.2.1.3); the number of one that has none.
[[nodiscard]] std::vector<std::string> KeyUsageNames(const std::vector<unsigned>& bits);
/// What an extended key usage is for; empty when it is not known.
[[nodiscard]] std::string_view PurposeName(std::string_view dotted);

}  // namespace qixx::watch
