// The words for people: the help, and the texts that have to say the same.
#include <gmock/gmock.h>

#include <filesystem>
#include <regex>

#include "tests/support/environment.h"
#include "tests/support/openssl.h"
#include "tests/support/temporary_folder.h"
#include "watch/command.h"
#include "watch/option_table.h"
#include "watch/people.h"
#include "watch/placeholders.h"

namespace qixx::testing {
namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;

std::string Source(const std::string& file) {
  return TemporaryFolder::ReadFile(std::string(QIXX_SOURCE_DIR "/") + file);
}

TEST(People, TextsNameEachPlaceholderAndWhatClearsIt) {
  const std::string cards = Source("docs/cards.md");
  const std::string manual = Source("docs/qixxwatch.1");
  const std::size_t removal = manual.find("and remove the placeholders");
  const std::string cleared = manual.substr(removal, manual.find("that still stand") - removal);
  for (const watch::NamedPlaceholder& placeholder : watch::kNamedPlaceholders) {
    const std::string name(placeholder.name);
    const bool isFilled = placeholder.inFiles != watch::InFiles::kStays;
    const bool isCleared = isFilled && placeholder.key.empty();
    const char* const inFiles = isCleared  ? "filled, cleared on removal"
                                : isFilled ? "filled"
                                           : "stays";
    EXPECT_THAT(cards, ContainsRegex("`" + name + "` \\|[^\n]*\\| " + inFiles + " \\|\n"));
    EXPECT_THAT(manual, HasSubstr(name));
    EXPECT_EQ(cleared.find(name) != std::string::npos, isCleared) << name;
  }
}

/// The words of a text, without what stands between them.
std::string Words(const std::string& text) {
  return std::regex_replace(text, std::regex("[^A-Za-z]+"), " ");
}

TEST(People, TextsNameEachCommandThatMayFail) {
  std::string all;
  for (const std::string_view keyword : watch::KeywordsThatMayFail()) {
    all.append(keyword).append(" ");
  }
  for (const char* const text : {"README.md", "docs/qixxwatch.1"}) {
    EXPECT_THAT(Words(Source(text)), HasSubstr(" " + all + "or close that fails"));
  }
}

TEST(People, TextsNameEachOption) {
  const std::string manual = std::regex_replace(Source("docs/qixxwatch.1"), std::regex("\\\\"), "");
  const std::string bash = Source("packaging/completions/qixxwatch.bash");
  for (const watch::PositionalRow& row : watch::kPositionalOptions) {
    if (row.help.empty()) continue;
    const std::string name(row.head.substr(0, row.head.find(' ')));
    EXPECT_THAT(manual, ContainsRegex("\n\\.TP\n[^\n]*" + name)) << "a paragraph of its own";
    EXPECT_THAT(bash, HasSubstr(name));
  }
}

/// What a completion offers is read from a file that anybody may have written.
TEST(People, CompletionOffersNamesAndRunsNothing) {
  const TemporaryFolder folder;
  const ScopedVariable file(
      "qixconfigglobal",
      folder
          .Write("x.conf",
                 "[Watch Front Door Insert]\n[Watch it's Remove]\n[Watch * Insert]\n"
                 "[Watch $(touch ${0%/*}/ran) Insert]\n[Watch `touch ran` Insert]\n"
                 "[Watch a\\b Insert]\n[Other Insert]\n")
          .c_str());
  const std::string script =
      folder.Write("ask",
                   "cd ${0%/*}\nsource \"$1\"\nCOMP_WORDS=(qixxwatch config \"$2\") COMP_CWORD=2\n"
                   "_qixxwatch qixxwatch \"${2#[\\\"\\']}\" config\n"
                   // As it is when the line is entered.
                   "(IFS=' '; eval \"printf '<%s>' ${COMPREPLY[*]}\")\n");
  const auto offered = [&](const std::string& typed) {
    return OutputOf("LC_ALL=C bash " + script +
                    " " QIXX_SOURCE_DIR "/packaging/completions/qixxwatch.bash '" + typed + "'");
  };
  EXPECT_EQ(offered(""), "<Watch><$(touch ${0%/*}/ran)><*><Front Door><`touch ran`><a\\b><it's>");
  EXPECT_EQ(offered("Fr"), "<Front Door>");
  EXPECT_EQ(offered("Front\\ D"), "<Front Door>");
  EXPECT_FALSE(std::filesystem::exists(folder.Path("ran")));
}

TEST(People, HelpFitsATerminalAndKeepsQuotesFromTheShell) {
  const std::string help = watch::HelpText();
  EXPECT_THAT(help, HasSubstr("-match '\"TEXT\"'"));
  EXPECT_THAT(help, Not(ContainsRegex("[^\n]{81}")));
}

}  // namespace
}  // namespace qixx::testing
