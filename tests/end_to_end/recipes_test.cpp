// Every recipe of docs/recipes.md, run as it is printed: its files, a card of Ann's, and what the
// page says that runs.
#include <cctype>
#include <regex>
#include <set>

#include "tests/end_to_end/service_test.h"
#include "tests/support/openssl.h"

namespace qixx::testing {
namespace {

namespace fs = std::filesystem;

/// What stands below one heading of the page.
struct Recipe {
  std::string title;
  std::vector<std::string> files = {};  ///< each begins with a comment that is its path
  /// Lines of "start: " of the service, without a card, "in: " and "out: ", and what is done then.
  std::multiset<std::string> done = {};
};

void PrintTo(const Recipe& recipe, std::ostream* out) {
  *out << recipe.title;
}

std::multiset<std::string> LinesOf(const std::string& text) {
  std::multiset<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.insert(line);
  return lines;
}

/// The headings below which files stand.
std::vector<Recipe> ReadPage() {
  std::vector<Recipe> recipes;
  std::string title;
  const std::string page = TemporaryFolder::ReadFile(QIXX_RECIPES);
  const std::regex headingOrBlock("\n(##.*)|\n```([a-z]*)\n([^`]*\n)```");
  for (std::sregex_iterator at(page.begin(), page.end(), headingOrBlock), end; at != end; ++at) {
    const std::string kind = at->str(2);
    if ((*at)[1].matched) title = at->str(1);
    if (kind == "ini" && (recipes.empty() || recipes.back().title != title)) {
      recipes.push_back({title});
    }
    if (kind == "ini") recipes.back().files.push_back(at->str(3));
    if (kind == "text" && !recipes.empty()) recipes.back().done.merge(LinesOf(at->str(3)));
  }
  return recipes;
}

/// Runs one recipe in a home where all programs of /usr/bin only note how they were started.
class RecipeRun : public ServiceTest, public ::testing::WithParamInterface<Recipe> {
 protected:
  void SetUp() override {
    for (const std::string& file : GetParam().files) WriteFile(file);
    ASSERT_TRUE(MakeCertificate(Path("ann.der")));
    // The page's own trace would be another one for each recipe.
    SetVariable("qix:Trace:watch", Path("trace.log"));
  }
  /// In the first line stands the path behind "; ".
  void WriteFile(std::string text) {
    const fs::path path = text.substr(2, text.find('\n') - 2);
    const bool isSystems = path == "/etc/qix.conf";
    static const std::regex kProgram("/usr/bin/([^ \n]+)");
    for (std::sregex_iterator at(text.begin(), text.end(), kProgram), end; at != end; ++at) {
      WriteProgram("echo \"" + at->str() + " $*\" >> " + Path("log"), "bin/" + at->str(1));
    }
    for (const auto& [from, to] : {std::pair("/home/kiosk/", Path("")),
                                   {"/usr/local/lib/qixxwatch/", QIXX_SOFTCARD_FOLDER},
                                   {"/usr/bin/", Path("bin/")}}) {
      text = std::regex_replace(text, std::regex(from), to);
    }
    Home().Write(isSystems ? "system.conf" : path.filename().string(), text);
    std::smatch watch;
    if (!isSystems || !std::regex_search(text, watch, std::regex("\nWatch=.*"))) return;
    watchers_ += static_cast<std::size_t>(std::ranges::count(watch.str(), '|'));
  }

  /// Whether exactly the expected programs ran, and the files hold the expected lines.
  void ExpectDone(const std::string& stage) {
    std::multiset<std::string> programs = Expected(stage);
    std::erase_if(programs, [this](const std::string& line) {
      const std::size_t holds = line.find(" holds ");
      if (holds == line.npos) return false;
      const std::string file = fs::path(line.substr(0, holds)).filename();
      EXPECT_TRUE(Eventually([&] { return LinesOf(Read(file)).contains(line.substr(holds + 7)); }))
          << line << "\n"
          << Read(file);
      return true;
    });
    EXPECT_TRUE(Eventually([&] { return LinesOf(Read("log")) == programs; })) << Read("log");
    fs::remove(Path("log"));
  }
  static std::multiset<std::string> Expected(const std::string& stage) {
    std::multiset<std::string> lines;
    for (const std::string& line : GetParam().done) {
      if (line.starts_with(stage + ": ")) lines.insert(line.substr(stage.size() + 2));
    }
    return lines;
  }
  void InsertAnn(std::size_t count) {
    InsertCard(1, {Path("ann.der")});
    Await("Watch - Connected slot 1", count * watchers_);
    ExpectDone("in");
  }

  std::size_t watchers_ = 1;
};

TEST_P(RecipeRun, DoesWhatThePageSays) {
  ASSERT_FALSE(Expected("out").empty()) << "the page says nothing of a removal";
  Start();
  Await("Watch - Event", watchers_);
  ExpectDone("start");
  InsertAnn(1);
  RemoveCard(1);
  Await("Watch - Disconnected slot 1", watchers_);
  ExpectDone("out");
  if (Expected("start").empty()) return;
  // As after a power cut: nobody saw the card go.
  InsertAnn(2);
  Stop(SIGKILL);
  Await("Watch - Stopped", watchers_ - 1);
  RemoveCard(1);
  Start();
  ExpectDone("start");
}

INSTANTIATE_TEST_SUITE_P(Page, RecipeRun, ::testing::ValuesIn(ReadPage()), [](const auto& test) {
  std::string name = test.param.title;
  std::erase_if(name, [](unsigned char c) { return std::isalnum(c) == 0; });
  return name;
});

}  // namespace
}  // namespace qixx::testing
