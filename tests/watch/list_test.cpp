// What --list tells.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "der/names.h"
#include "tests/support/recipes.h"
#include "watch/certificate_selection.h"

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
    EXPECT_EQ(selection->index, static_cast<std::size_t>(taken - verdicts.begin()));
    // A duplicate that is valid longer takes its place away.
    certificates[selection->index]->superseded = true;
    selection = watch::SelectCertificate(certificates, match);
    EXPECT_EQ(watch::JudgeCertificates(certificates, match, selection)[taken - verdicts.begin()],
              Verdict::kSuperseded);
  }
}

}  // namespace
}  // namespace qixx::testing
