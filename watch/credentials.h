// The card holder's logon values and the placeholders that carry them into commands.
//
// Values are what a card's certificates say of themselves: they are not authenticated, and they are
// cleaned before they leave this unit. All operations may be called from any thread; the card is
// locked while it is read. Nothing is thrown, but for std::bad_alloc by the three operations that
// work on given values: SplitPrincipalName, SubjectPlaceholders, ReplaceLogonPlaceholders.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "pkcs11/cryptoki.h"
#include "runtime/text.h"
#include "watch/options.h"

namespace qixx {

// --- texts of a card --------------------------------------------------------------------------

/// Makes a text that came from outside harmless for command lines and configuration files, in
/// place: control characters, double quotes and a '>' that stands alone (between blanks, ends and
/// '%') become '_'. Parts taken from a cleaned text are to be cleaned again, since a '>' may stand
/// alone in them.
void CleanCardText(std::span<char> text);

/// The two halves of a user principal name, both cleaned.
struct LogonName {
  std::string user;
  std::string domain;
};
/// Splits at the first '@'; without one the whole name is the user's.
[[nodiscard]] LogonName SplitPrincipalName(std::string_view upn);

struct SubjectPlaceholder {
  std::string name;   ///< "%OID.key%"
  std::string value;  ///< cleaned
};
/// One placeholder for each component of a subject text, up to one without '='. Of components with
/// the same key, letter case ignored, only the first counts.
[[nodiscard]] std::vector<SubjectPlaceholder> SubjectPlaceholders(std::string_view subject);

// --- the logon credential ---------------------------------------------------------------------

/// Areas for what FindLogonCredential finds.
struct LogonValues {
  char upn[kTextSize] = "";
  char subject[kTextSize] = "";
  char serial[kTextSize] = "";
};

/// Splits "name|hex" at the last bar. Returns false, and leaves the outputs alone, when the name
/// does not fit or the hexadecimal part has twice the digits that `value` holds, or more.
bool ParseMatchText(std::string_view match, std::span<char> name, std::span<std::uint8_t> value,
                    std::size_t& valueLength);

/// Finds the logon credential on the cards. Empty areas are outputs that the caller does not want;
/// a value that does not fit its area is left out. `certificate` is a slot id on entry (for "fast")
/// and the selected entry's reference on success; the reference is never followed.
bool FindLogonCredential(std::string_view match, std::uint64_t& certificate, std::span<char> upn,
                         std::span<char> subject, std::span<char> serial);

/// Whether a card holds a certificate that the match asks for: by subject name, unless the match
/// says "issuer|", and by slot. Every card will do for an empty match.
[[nodiscard]] bool IsMatchingCardPresent(std::string_view match);
[[nodiscard]] bool IsCredentialStillPresent(const CWatchOptions& record);

/// Replaces the placeholders of a zero-terminated command text in place, in any letter case. What
/// would not fit stays as it is.
void ExpandLogonPlaceholders(std::string_view match, std::span<char> text);

/// The replacement alone, by the given values.
void ReplaceLogonPlaceholders(const LogonValues& values, std::span<char> text);

// --- the logon slot ---------------------------------------------------------------------------

/// Size of a slot's identity text, its description without terminator.
inline constexpr std::size_t kSlotIdentitySize = sizeof(CK_SLOT_INFO::slotDescription);

/// Asks for the slot identity and the certificate that are recorded for a user. True with an
/// answer.
using CredentialQuestion = bool (*)(const char* user, std::span<char, kSlotIdentitySize> identity,
                                    std::span<std::uint8_t> certificate,
                                    std::size_t& certificateLength);

/// Puts another question in place of the platform's credential store, or with null the store back.
/// Only while no other thread asks.
void SetCredentialQuestion(CredentialQuestion question);

/// The slot whose identity text equals the one recorded for the logon user, 0 when none does.
/// False when the question cannot be answered.
bool FindLogonSlot(const char* user, std::span<const CK_SLOT_ID> slots, CK_SLOT_ID& slot,
                   std::span<std::uint8_t> certificate, std::size_t& certificateLength);

}  // namespace qixx
