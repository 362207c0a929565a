// The logon credential on the cards, and the question whether a card is the one to watch.
//
// Values are what a card's certificates say of themselves: they are not authenticated, and they are
// cleaned before they leave this unit. All operations may be called from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "pkcs11/cryptoki.h"
#include "runtime/text.h"
#include "watch/card_reader.h"

namespace qixx::watch {

/// Longest logon value. A longer subject is cut, any other value that is longer is left out.
inline constexpr std::size_t kMaxLogonValue = runtime::kMaxText;

/// What the card holder's certificate says, cleaned; any of them may be empty.
struct LogonValues {
  std::string upn = {};
  std::string subject = {};
  std::string serial = {};  ///< upper-case hexadecimal
};

/// The values of the logon credential. The match "fast" takes the name that the suite notes on the
/// token in `slot` for whoever is logged on, if there is one. With kNoSlot, which is what commands
/// and --list pass, a name so noted gives no credential: their placeholders stay.
[[nodiscard]] std::optional<LogonValues> FindLogonCredential(CardReader& card,
                                                             std::string_view match,
                                                             CK_SLOT_ID slot);

/// Whether the certificates on the cards yield a credential; what is noted on a token does not
/// count.
[[nodiscard]] bool IsCredentialStillPresent(CardReader& card, std::string_view match);

/// Whether a card holds a certificate that the match asks for: by subject name, unless the match
/// says "issuer|", and by slot. Every card will do for an empty match.
[[nodiscard]] bool IsMatchingCardPresent(CardReader& card, std::string_view match);

/// The two halves of a user principal name, both cleaned.
struct LogonName {
  std::string user;
  std::string domain;
};
/// Splits at the first '@'; without one the whole name is the user's.
[[nodiscard]] LogonName SplitPrincipalName(std::string_view upn);

}  // namespace qixx::watch
