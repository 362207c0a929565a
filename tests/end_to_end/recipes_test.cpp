// Every recipe of docs/recipes.md, run as it is printed: its files, a card of Ann's, and what the
// page says that runs.
#include <regex>
#include <set>

#include "tests/end_to_end/service_test.h"
#include "tests/support/openssl.h"

namespace qixx::testing {
namespace {

using LineSet = std::multiset<std::string>;

/// What stands below one heading of the page.
struct Recipe {
  std::vector<std::string> files = {};  ///< each begins with a comment that is its path
  /// Lines of "start: " of the service, without a card, "in: " and "out: ", and what is done then.
  LineSet done = {};
};
using TitledRecipe = std::map<std::string, Recipe>::value_type;

/// The title is enough.
void PrintTo(const Recipe& /*recipe*/, std::ostream* /*out*/) {}

LineSet LinesOf(const std::string& text) {
  LineSet lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.insert(line);
  return lines;
}

/// The headings below which files stand.
std::map<std::string, Recipe> ReadPage() {
  std::map<std::string, Recipe> recipes;
  std::string title;
  const std::string page = TemporaryFolder::ReadFile(QIXX_RECIPES);
  const std::regex headingOrBlock("\n(##.*)|\n```([a-z]*)\n([^`]*\n)```");
  for (std::sregex_iterator at(page.begin(), page.end(), headingOrBlock), end; at != end; ++at) {
    if ((*at)[1].matched) title = at->str(1);
    if (at->str(2) == "ini") recipes[title].files.push_back(at->str(3));
    if (at->str(2) == "text") recipes[title].done = LinesOf(at->str(3));
  }
  return recipes;
}

/// Runs one recipe, in which all programs of /usr/bin only note how they were started.
class RecipeRun : public ServiceTest, public ::testing::WithParamInterface<TitledRecipe> {
 protected:
  void SetUp() override {
    ASSERT_TRUE(MakeCertificate(Path("ann.der")));
    // The page's own trace would be another one for each recipe.
    SetVariable("qix:Trace:watch", Path("trace.log"));
    const std::string note = WriteProgram("echo \"$*\" >> " + Path("log")) + " /usr/bin/";
    for (std::string text : GetParam().second.files) {
      const std::filesystem::path path = text.substr(2, text.find('\n') - 2);
      for (const std::string& line : LinesOf(text)) watchers_ += line.starts_with("Watch") ? 1 : 0;
      for (const auto& [from, to] : {std::pair("/home/kiosk/", Path("")),
                                     {"/usr/local/lib/qixxwatch/", QIXX_SOFTCARD_FOLDER},
                                     {"/usr/bin/", note}}) {
        text = std::regex_replace(text, std::regex(from), to);
      }
      Home().Write(path == "/etc/qix.conf" ? "system.conf" : path.filename().string(), text);
    }
  }

  /// Whether exactly the expected programs ran, and the files hold the expected lines.
  void ExpectDone(const std::string& stage) {
    LineSet programs;
    const std::regex lineOfStage(stage + ": (.*/(.*) holds )?(.*)");
    std::smatch found;
    for (const std::string& line : GetParam().second.done) {
      if (!std::regex_match(line, found, lineOfStage)) continue;
      if (!found[1].matched) {
        programs.insert(found[3]);
        continue;
      }
      EXPECT_TRUE(Eventually([&] { return LinesOf(Read(found[2])).contains(found[3]); })) << line;
    }
    EXPECT_TRUE(stage != "out" || !programs.empty()) << "the page says nothing of a removal";
    EXPECT_TRUE(Eventually([&] { return LinesOf(Read("log")) == programs; })) << Read("log");
    std::filesystem::remove(Path("log"));
  }

  std::size_t watchers_ = 0;
};

TEST_P(RecipeRun, DoesWhatThePageSays) {
  Start();
  Await("Watch - Event", watchers_);
  ExpectDone("start");
  InsertCard(1, Path("ann.der"));
  Await("Watch - Connected slot 1", watchers_);
  ExpectDone("in");
  RemoveCard(1);
  Await("Watch - Disconnected slot 1", watchers_);
  ExpectDone("out");
}

INSTANTIATE_TEST_SUITE_P(Page, RecipeRun, ::testing::ValuesIn(ReadPage()));

}  // namespace
}  // namespace qixx::testing
