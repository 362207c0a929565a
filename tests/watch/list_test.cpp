// What --list tells.
#include <gmock/gmock.h>

#include <algorithm>
#include <string>

#include "der/names.h"
#include "tests/support/json.h"
#include "watch/list.h"

namespace qixx::testing {
namespace {

using ::testing::ContainsRegex;
using ::testing::Not;

/// One of everything, its texts by somebody who means harm.
watch::Listing ListingOf(const std::string& text) {
  watch::Listing listing;
  listing.files = {
      {watch::FileRole::kUser, text, watch::FileReason::kHome, watch::FileState::kRead, text}};
  listing.command = {text, watch::CommandSource::kEnvironment, text};
  listing.library = {text, text, {text}, {{text, text}}, CKR_OK, "", text, text, "1.0", "2.40"};
  listing.readers = {{~CK_SLOT_ID{0}, true, text, "", true, true, watch::Counting::kYes}};
  listing.cards = {{1, text, "", "", text, 0x404}};
  listing.certificates.resize(1);
  listing.certificates[0].subject = listing.certificates[0].upn = text;
  listing.certificates[0].notAfter = text;
  listing.certificates[0].usages = {0, 15};
  listing.certificates[0].purposes = {std::string(der::kSmartCardLogon), text};
  listing.omitted = {{1, text, watch::Omission::kUnreadable}};
  listing.placeholders = {{"%UPN%", text, true}};
  listing.failures = {{"C_GetTokenInfo", 4, 0xE1}, {"C_FindObjects", 4, std::nullopt}};
  return listing;
}

TEST(Listing, JsonHoldsHostileTextsWhole) {
  const std::string text =
      std::string("\"\\/\b\n\0", 6) + "\x1b[2J\x7f\u009b\u202e\u2028\u00e9\U0001F600";
  const JsonValues values = ReadJson(watch::JsonOf(ListingOf(text), "1.2"));
  EXPECT_EQ(std::ranges::count(values, text, &JsonValues::value_type::second), 20);
  EXPECT_EQ(values.at("readers.0.slot"), "18446744073709551615");
  EXPECT_EQ(values.at("cards.0.flagNames.0") + " " + values.at("cards.0.flagNames.1"),
            "login_required token_initialized");
  EXPECT_EQ(values.at("failures.1.result"), "null");
  const std::string broken = "\xff \xed\xa0\x80 \xc3";
  EXPECT_EQ(ReadJson(watch::JsonOf(ListingOf(broken), "")).at("cards.0.label"),
            "\ufffd \ufffd\ufffd\ufffd \ufffd");
}

TEST(Listing, TextDoesNotControlATerminal) {
  const std::string listed = watch::TextOf(ListingOf("\n\x1b\u202e"));
  const std::string shown = "\\x0a\\x1b\\u202e";
  std::size_t count = 0;
  for (std::size_t at = 0; (at = listed.find(shown, at)) != listed.npos; ++at) ++count;
  EXPECT_EQ(count, 18U) << listed;
  EXPECT_THAT(listed, Not(ContainsRegex("[^\n -~]|[^\n]{80}")));
}

}  // namespace
}  // namespace qixx::testing
