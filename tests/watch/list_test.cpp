// What --list tells.
#include <gmock/gmock.h>

#include <algorithm>
#include <optional>
#include <sstream>
#include <string>

#include "der/names.h"
#include "runtime/text.h"
#include "tests/support/json.h"
#include "watch/card_text.h"
#include "watch/list.h"

namespace qixx::testing {
namespace {

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
  EXPECT_EQ(ReadJson(watch::JsonOf({}, "")).at("readers.count"), "0");
}

TEST(Listing, TextFitsATerminalAndDoesNotControlIt) {
  std::string wide = std::string(300, 'x');
  for (int i = 0; i < 50; ++i) wide += "\u6c34";
  const std::string text = "a\n\x1b[2J\u009b\u202e\xff" + wide;
  const std::string shown = "a\\x0a\\x1b[2J\\x9b\\u202e\\xff" + wide;
  const std::string listed = watch::TextOf(ListingOf(text));
  std::istringstream lines(listed);
  std::string joined;
  for (std::string line; std::getline(lines, line);) {
    joined += line.substr(std::min(line.find_first_not_of(' '), line.size()));
    std::size_t width = 0;
    for (std::string_view rest = line; !rest.empty();) {
      const std::optional<char32_t> character = runtime::TakeUtf8(rest);
      ASSERT_TRUE(character && !watch::Misleads(*character)) << line;
      width += *character < 0x80 ? 1 : 2;
    }
    EXPECT_LE(width, 79U) << line;
  }
  std::size_t count = 0;
  for (std::size_t at = 0; (at = joined.find(shown, at)) != joined.npos; ++at) ++count;
  EXPECT_EQ(count, 18U) << listed;
}

}  // namespace
}  // namespace qixx::testing
