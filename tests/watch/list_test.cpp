// What --list tells.
#include <gmock/gmock.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "der/names.h"
#include "tests/support/json.h"
#include "tests/support/recipes.h"
#include "watch/card_text.h"
#include "watch/certificate_selection.h"
#include "watch/list.h"
#include "watch/list_names.h"

namespace qixx::testing {
namespace {

using watch::Verdict;

/// The certificates of slot 1, as a collection would hold them.
std::vector<der::CertificatePtr> Collected(const std::vector<Recipe>& recipes) {
  std::vector<der::CertificatePtr> certificates;
  for (const Recipe& recipe : recipes) {
    certificates.push_back(der::LoadCertificate(BytesOf(recipe.Build())));
    certificates.back()->slot = certificates.back()->rawSlot = 1;
  }
  return certificates;
}

TEST(Selection, SaysWhyTheOthersAreNotTaken) {
  const Recipe logon;
  const Recipe forLogonUnnamed{.alternativeNames = ""};
  const Recipe named{.extensions = ""};
  const Recipe mailed{
      .subject = Part(der::kEmailAttribute, "ann@mail"), .alternativeNames = "", .extensions = ""};
  const Recipe nameless{.subject = Part("cn", "Bob"), .alternativeNames = "", .extensions = ""};
  using Verdicts = std::vector<Verdict>;
  const std::tuple<const char*, std::vector<Recipe>, Verdicts> rows[] = {
      {"",
       {named, forLogonUnnamed, logon, nameless, logon},
       {Verdict::kNotForLogon, Verdict::kWithoutName, Verdict::kTaken, Verdict::kNotForLogon,
        Verdict::kBehindTaken}},
      {"cn=no",
       {nameless, mailed, named},
       {Verdict::kWithoutNames, Verdict::kTaken, Verdict::kBehindTaken}},
      {"cn=ann lee|FF",
       {nameless, named, logon},
       {Verdict::kNotMatching, Verdict::kNotForLogon, Verdict::kTaken}},
      {"cn=ann lee|04", {logon, logon}, {Verdict::kNotMatching, Verdict::kNotMatching}},
      {"cn=ann lee|01", {named}, {Verdict::kNotForLogon}},
      {"", {nameless}, {Verdict::kWithoutNames}},
      {"", {}, {}},
  };
  for (const auto& [text, recipes, verdicts] : rows) {
    SCOPED_TRACE(text);
    const watch::CredentialMatch match = watch::SelectionMatch(text);
    auto certificates = Collected(recipes);
    auto selection = watch::SelectCertificate(certificates, match);
    EXPECT_EQ(watch::JudgeCertificates(certificates, match, selection), verdicts);
    const auto taken = std::ranges::find(verdicts, Verdict::kTaken);
    ASSERT_EQ(selection.has_value(), taken != verdicts.end());
    if (!selection) continue;
    const auto place = static_cast<std::size_t>(taken - verdicts.begin());
    EXPECT_EQ(selection->index, place);
    // A duplicate that is valid longer takes its place away.
    certificates[selection->index]->superseded = true;
    selection = watch::SelectCertificate(certificates, match);
    EXPECT_EQ(watch::JudgeCertificates(certificates, match, selection)[place],
              Verdict::kSuperseded);
  }
}

/// One of everything, its texts by somebody who means harm.
watch::Listing ListingOf(const std::string& text) {
  watch::Listing listing;
  listing.files.resize(1);
  listing.files[0].path = listing.files[0].fault = text;
  listing.command.emplace();
  listing.command->text = listing.command->match = text;
  listing.library.name = listing.library.file = text;
  listing.library.modules = {text};
  listing.library.tried = {{text, text}};
  listing.library.result = CKR_OK;
  listing.library.manufacturer = listing.library.description = text;
  listing.library.version = "1.0";
  listing.readers.resize(1);
  listing.readers[0].isKnown = true;
  listing.readers[0].slot = ~CK_SLOT_ID{0};
  listing.readers[0].description = text;
  listing.cards.resize(1);
  listing.cards[0].label = listing.cards[0].serial = text;
  listing.cards[0].flags = 0x404;
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
  const JsonValues values = JsonReader::Read(watch::JsonOf(ListingOf(text), "1.2"));
  for (const char* const path :
       {"files.0.path", "files.0.fault", "watch.command", "watch.match", "library.file",
        "library.modules.0", "library.tried.0.reason", "library.description",
        "readers.0.description", "cards.0.label", "certificates.0.subject",
        "certificates.0.principalName", "certificates.0.notAfter",
        "certificates.0.extendedKeyUsage.1.identifier", "omitted.0.label",
        "placeholders.0.value"}) {
    EXPECT_EQ(values.at(path), text) << path;
  }
  EXPECT_EQ(values.at("readers.0.slot"), "18446744073709551615");
  EXPECT_EQ(values.at("cards.0.flagNames.0") + " " + values.at("cards.0.flagNames.1"),
            "login_required token_initialized");
  EXPECT_EQ(values.at("certificates.0.keyUsage.1"), "bit 15");
  EXPECT_EQ(values.at("certificates.0.extendedKeyUsage.0.name"), "smart-card logon");
  EXPECT_EQ(values.at("failures.0.result"), "CKR_TOKEN_NOT_RECOGNIZED");
  EXPECT_EQ(values.at("failures.1.result"), "null");
  const std::string broken = "\xff \xed\xa0\x80 \xc3";
  EXPECT_EQ(JsonReader::Read(watch::JsonOf(ListingOf(broken), "")).at("cards.0.label"),
            "\ufffd \ufffd\ufffd\ufffd \ufffd");
  EXPECT_EQ(JsonReader::Read(watch::JsonOf({}, "")).at("readers.count"), "0");
}

TEST(Listing, TextFitsATerminalAndDoesNotControlIt) {
  const std::string text = "a\n\x1b[2J\u009b\u202e\xff" + std::string(300, 'x') + "\u00e9";
  const std::string listed = watch::TextOf(ListingOf(text));
  EXPECT_THAT(listed, ::testing::HasSubstr("slot 4: CKR_TOKEN_NOT_RECOGNIZED"));
  std::istringstream lines(listed);
  std::string joined;
  for (std::string line; std::getline(lines, line);) {
    joined += line.substr(std::min(line.find_first_not_of(' '), line.size()));
    std::size_t width = 0;
    for (std::string_view rest = line; !rest.empty(); ++width) {
      const std::optional<char32_t> character = runtime::TakeUtf8(rest);
      EXPECT_TRUE(character && !watch::Misleads(*character)) << line;
    }
    EXPECT_LE(width, 79U) << line;
  }
  const std::string shown = "a\\x0a\\x1b[2J\\x9b\\u202e\\xff" + std::string(300, 'x') + "\u00e9";
  std::size_t count = 0;
  for (std::size_t at = 0; (at = joined.find(shown, at)) != joined.npos; ++at) ++count;
  EXPECT_EQ(count, 18U) << listed;
}

TEST(Listing, TimesAreReadable) {
  const std::pair<const char*, const char*> rows[] = {
      {"491231235959Z", "2049-12-31T23:59:59Z"},
      {"500101000000Z", "1950-01-01T00:00:00Z"},
      {"20500101000000Z", "2050-01-01T00:00:00Z"},
      {"2050010100000Z", "2050010100000Z"},
      {"50010100000xZ", "50010100000xZ"},
      {"500101000000ZZ", "500101000000ZZ"},
      {"500101000000+0100", "500101000000+0100"},
      {"", ""},
      {"Z", "Z"},
  };
  for (const auto& [encoded, text] : rows) EXPECT_EQ(watch::TimeText(encoded), text);
}

}  // namespace
}  // namespace qixx::testing
