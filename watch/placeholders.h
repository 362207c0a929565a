// The placeholders that carry a card holder's logon values into commands and files.
//
// All operations may be called from any thread. Only std::bad_alloc is thrown.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "watch/card_reader.h"
#include "watch/credentials.h"

namespace qixx::watch {

/// The configuration keys of the logon values.
inline constexpr std::string_view kUserNameKey = "Username";
inline constexpr std::string_view kDomainKey = "Domain";

/// What a "set " makes of a placeholder in the text of a file.
enum class InFiles {
  kStays,
  kFilled,
  kFilledLast,  ///< just before the components of the subject
};
struct NamedPlaceholder {
  std::string_view name;
  /// Cleaned; empty when the card does not say it. A command then gets nothing in its place, and in
  /// a file it stays.
  std::string (*valueOf)(const LogonValues& values);
  InFiles inFiles;
  /// Gets the value in a file too. A removal empties the key; without a key, it takes away the
  /// placeholder itself.
  std::string_view key = {};
};
/// All placeholders but those of the subject's components, in the order in which commands get
/// them: a later one sees what an earlier one put in.
inline constexpr auto kNamedPlaceholders = std::to_array<NamedPlaceholder>({
    {"%UPN%", [](const LogonValues& values) { return values.upn; }, InFiles::kStays},
    {"%USERNAME%", [](const LogonValues& values) { return SplitPrincipalName(values.upn).user; },
     InFiles::kFilled, kUserNameKey},
    {"%DOMAIN%", [](const LogonValues& values) { return SplitPrincipalName(values.upn).domain; },
     InFiles::kFilled, kDomainKey},
    {"%SUBJECT%", [](const LogonValues& values) { return values.subject; }, InFiles::kFilledLast},
    {"%SERIALNUMBER%", [](const LogonValues& values) { return values.serial; }, InFiles::kFilled},
});

/// What a placeholder for one component of the subject begins with; its key and a '%' follow.
inline constexpr std::string_view kComponentPrefix = "%OID.";
/// One of these is in each text that holds a placeholder.
inline constexpr auto kPlaceholderMarks = [] {
  std::array<std::string_view, kNamedPlaceholders.size() + 1> marks = {kComponentPrefix};
  std::ranges::transform(kNamedPlaceholders, marks.begin() + 1, &NamedPlaceholder::name);
  return marks;
}();

struct SubjectPlaceholder {
  std::string name;   ///< "%OID.key%"
  std::string value;  ///< cleaned
};
/// One placeholder for each component of a subject text, up to one without '='. Of components with
/// the same key, letter case ignored, only the first counts.
[[nodiscard]] std::vector<SubjectPlaceholder> SubjectPlaceholders(std::string_view subject);

// --- in commands --------------------------------------------------------------------------------

/// A command text with its placeholders replaced, in any letter case, by the values of the logon
/// credential. What would make the text longer than `maxLength` stays as it is, and so does all
/// where there is no credential. The card is read only for a text that holds a placeholder.
[[nodiscard]] std::string ExpandLogonPlaceholders(CardReader& card, std::string_view match,
                                                  std::string text, std::size_t maxLength);
/// The replacement alone, by the given values.
[[nodiscard]] std::string ReplaceLogonPlaceholders(const LogonValues& values, std::string text,
                                                   std::size_t maxLength);

// --- in the text of a file ----------------------------------------------------------------------

/// How long the values of a card may make a text.
[[nodiscard]] constexpr std::size_t MaxFilledText(std::size_t length) {
  constexpr std::size_t kRoom = std::size_t{64} * 1024;
  return 2 * length + kRoom;
}

/// How many bytes of a text may still be walked.
class WalkBudget {
 public:
  explicit WalkBudget(std::size_t bytes) : left_(bytes) {}
  /// False, from then on for ever, when there are not so many left.
  bool Take(std::size_t bytes) {
    spent_ = spent_ || bytes > left_;
    left_ -= spent_ ? 0 : bytes;
    return !spent_;
  }
  [[nodiscard]] bool IsSpent() const { return spent_; }

 private:
  std::size_t left_;
  bool spent_ = false;
};

/// Replaces every occurrence of a placeholder, also those that a replacement brings about, as long
/// as that must come to an end; else the search goes on behind the replacement. The key of a
/// subject's component counts in any letter case, since certificates and administrators write it in
/// either. At the start of a line, with blanks and other placeholders in front or not, a value
/// makes no section, block or comment of it, also not together with its neighbours, and a component
/// that comes to nothing does not let them make a condition or a "..". False, and the text is as it
/// was, when it would be longer than `maxLength`, when a value with what stands around it would
/// make it pass for one of an older version, or when the budget is spent: a text that holds the
/// name, which is not empty, is walked once; each '%' in front of the name counts kStepCost times,
/// and so does what is put in and lies around it, since it is read character by character.
[[nodiscard]] bool ReplaceAll(std::string& text, std::string_view name, std::string_view value,
                              std::size_t maxLength, WalkBudget& budget);
inline constexpr std::size_t kStepCost = 8;

}  // namespace qixx::watch
