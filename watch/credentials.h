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

namespace qixx::watch {

// --- placeholders -----------------------------------------------------------------------------

inline constexpr std::string_view kUpnPlaceholder = "%UPN%";
inline constexpr std::string_view kUserNamePlaceholder = "%USERNAME%";
inline constexpr std::string_view kDomainPlaceholder = "%DOMAIN%";
inline constexpr std::string_view kSubjectPlaceholder = "%SUBJECT%";
inline constexpr std::string_view kSerialPlaceholder = "%SERIALNUMBER%";
/// What a placeholder for one component of the subject begins with; its key and a '%' follow.
inline constexpr std::string_view kComponentPrefix = "%OID.";

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
  char upn[runtime::kTextSize] = "";
  char subject[runtime::kTextSize] = "";
  char serial[runtime::kTextSize] = "";
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

// --- the logon user ---------------------------------------------------------------------------

/// Size of the area for the logon user's name, terminator included.
inline constexpr std::size_t kLogonUserSize = 100;
/// Size of a slot's identity text, its description without terminator.
inline constexpr std::size_t kSlotIdentitySize = sizeof(CK_SLOT_INFO::slotDescription);

/// What the platform is asked about the logon user. Both say whether there is an answer.
struct LogonQueries {
  /// The name of the user who is logged on.
  bool (*user)(std::span<char> name);
  /// The slot identity and the certificate that are recorded for the user.
  bool (*credential)(const char* user, std::span<char, kSlotIdentitySize> identity,
                     std::span<std::uint8_t> certificate, std::size_t& certificateLength);
};
/// Replaces the queries, null by the platform's own, which have no answer here. Only while no other
/// thread asks; not used by the program itself.
void SetLogonQueries(const LogonQueries* queries);

/// The name of the active logon user; false when there is none.
[[nodiscard]] bool FindLogonUser(std::span<char> name);
/// The slot whose identity text equals the one recorded for the logon user, 0 when none does.
/// False when the question cannot be answered.
bool FindLogonSlot(const char* user, std::span<const CK_SLOT_ID> slots, CK_SLOT_ID& slot,
                   std::span<std::uint8_t> certificate, std::size_t& certificateLength);

}  // namespace qixx::watch
