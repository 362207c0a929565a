// The words of a listing that are the same in both of its forms.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "pkcs11/cryptoki.h"
#include "watch/list.h"

namespace qixx::watch {

// Names for programs to tell by; they do not change.
[[nodiscard]] std::string_view NameOf(FileRole role);
[[nodiscard]] std::string_view NameOf(FileReason reason);
[[nodiscard]] std::string_view NameOf(FileState state);
[[nodiscard]] std::string_view NameOf(CommandSource source);
/// Why a slot does not count; empty for one that does.
[[nodiscard]] std::string_view NameOf(Counting counting);
[[nodiscard]] std::string_view NameOf(Verdict verdict);
[[nodiscard]] std::string_view NameOf(Omission reason);

/// The flags of a token, without "CKF_" and in small letters; those without a name are left out.
[[nodiscard]] std::vector<std::string> TokenFlagNames(CK_FLAGS flags);
/// Of a key-usage bit (RFC 5280, 4.2.1.3); its number when it has none.
[[nodiscard]] std::string KeyUsageName(unsigned bit);
/// What an extended key usage is for; empty when it is not known.
[[nodiscard]] std::string_view PurposeName(std::string_view dotted);
/// "2.40"
[[nodiscard]] std::string VersionText(const CK_VERSION& version);
/// A validity time in ISO 8601, "2049-12-31T23:59:59Z"; what is no such time as it stands.
[[nodiscard]] std::string TimeText(std::string_view encoded);

}  // namespace qixx::watch
