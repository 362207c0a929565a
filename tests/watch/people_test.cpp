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

TEST(People, TextsNameEachOptionPlaceholderAndCommandThatMayFail) {
  const std::string manual = std::regex_replace(Source("docs/qixxwatch.1"), std::regex("\\\\"), "");
  const std::string bash = Source("packaging/completions/qixxwatch.bash");
  const std::string paragraph = "\n\\.TP\n[^\n]*";
  for (const watch::PositionalRow& row : watch::kPositionalOptions) {
    if (row.help.empty()) continue;
    const std::string name(row.head.substr(0, row.head.find(' ')));
    EXPECT_THAT(manual, ContainsRegex(paragraph + name));
    EXPECT_THAT(bash, HasSubstr(name));
  }
  for (const watch::NamedPlaceholder& placeholder : watch::kNamedPlaceholders) {
    EXPECT_THAT(manual, HasSubstr(placeholder.name));
    EXPECT_THAT(Source("docs/cards.md"), HasSubstr("`" + std::string(placeholder.name) + "` |"));
  }
  for (const std::string_view keyword : watch::KeywordsThatMayFail()) {
    EXPECT_THAT(manual, ContainsRegex(paragraph + std::string(keyword)));
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
