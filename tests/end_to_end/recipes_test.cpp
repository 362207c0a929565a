// Every recipe of docs/recipes.md, run as it is printed: its files, a card of Ann's, and what the
// page says that runs.
#include <algorithm>
#include <cctype>
#include <fstream>

#include "tests/end_to_end/service_test.h"
#include "tests/support/openssl.h"

namespace qixx::testing {
namespace {

/// What stands below one heading of the page.
struct Recipe {
  std::string title;
  std::vector<std::string> files = {};    ///< each begins with a comment that is its path
  std::vector<std::string> started = {};  ///< by the service itself, without a card
  std::vector<std::string> inserted = {};
  std::vector<std::string> removed = {};
};

void PrintTo(const Recipe& recipe, std::ostream* out) {
  *out << recipe.title;
}

std::string ReadBlock(std::istream& page) {
  std::string block;
  for (std::string line; std::getline(page, line) && line != "```";) block += line + "\n";
  return block;
}

void ReadExpected(const std::string& block, Recipe& recipe) {
  std::istringstream lines(block);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("start: ")) recipe.started.push_back(line.substr(7));
    if (line.starts_with("in: ")) recipe.inserted.push_back(line.substr(4));
    if (line.starts_with("out: ")) recipe.removed.push_back(line.substr(5));
  }
}

/// The headings below which files stand.
std::vector<Recipe> ReadPage(const std::string& path) {
  std::vector<Recipe> recipes;
  std::ifstream page(path);
  std::string title;
  for (std::string line; std::getline(page, line);) {
    if (line.starts_with("## ") || line.starts_with("### ")) title = line;
    if (line == "```ini") {
      if (recipes.empty() || recipes.back().title != title) recipes.push_back({.title = title});
      recipes.back().files.push_back(ReadBlock(page));
    } else if (line == "```text" && !recipes.empty()) {
      ReadExpected(ReadBlock(page), recipes.back());
    }
  }
  return recipes;
}

std::string Replace(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
    text.replace(at, from.size(), to);
  }
  return text;
}

/// Runs one recipe in a home where all programs of /usr/bin only note how they were started.
class RecipeRun : public ServiceTest, public ::testing::WithParamInterface<Recipe> {
 protected:
  void SetUp() override {
    for (const std::string& file : GetParam().files) WriteFile(file);
    ASSERT_TRUE(MakeCertificate(desktop.Path("ann.der")));
    // The page's own trace would be another one for each recipe.
    desktop.SetVariable("qix:Trace:watch", desktop.Path("trace.log"));
  }
  /// In the first line stands the path behind "; ".
  void WriteFile(const std::string& file) {
    const std::string path = file.substr(2, file.find('\n') - 2);
    std::string text = Replace(file, "/home/kiosk/", desktop.Path(""));
    text = Replace(text, "/usr/local/lib/qixxwatch/", QIXX_SOFTCARD_FOLDER);
    WritePrograms(text);
    text = Replace(text, "/usr/bin/", desktop.Path("bin/"));
    desktop.Home().Write(path == "/etc/qix.conf" ? "system.conf" : path.substr(path.rfind('/') + 1),
                         text);
    if (path != "/etc/qix.conf") return;
    watchers_ += static_cast<std::size_t>(std::ranges::count(WatchLine(text), '|'));
  }
  void WritePrograms(const std::string& text) {
    constexpr std::string_view kFolder = "/usr/bin/";
    std::filesystem::create_directory(desktop.Path("bin"));
    for (std::size_t at = 0; (at = text.find(kFolder, at)) != std::string::npos;) {
      at += kFolder.size();
      const std::string name = text.substr(at, text.find_first_of(" \n", at) - at);
      desktop.WriteProgram("echo \"/usr/bin/" + name + " $*\" >> " + desktop.Path("log"),
                           "bin/" + name);
    }
  }
  static std::string WatchLine(const std::string& text) {
    const std::size_t at = text.find("\nWatch=") + 1;
    return text.substr(at, text.find('\n', at) - at);
  }

  /// Whether exactly the expected programs ran, and the files hold the expected lines.
  void ExpectDone(const std::vector<std::string>& expected) {
    std::vector<std::string> programs;
    for (const std::string& line : expected) {
      const std::size_t holds = line.find(" holds ");
      if (holds == std::string::npos) {
        programs.push_back(line);
      } else {
        const std::string file = line.substr(0, holds).substr(line.rfind('/', holds) + 1);
        EXPECT_TRUE(Eventually([&] { return HasLine(file, line.substr(holds + 7)); }))
            << line << "\n"
            << desktop.Home().Read(file);
      }
    }
    std::ranges::sort(programs);
    EXPECT_TRUE(Eventually([&] { return Started() == programs; }))
        << ::testing::PrintToString(Started());
    std::filesystem::remove(desktop.Path("log"));
  }
  [[nodiscard]] bool HasLine(const std::string& file, const std::string& line) const {
    return ("\n" + desktop.Home().Read(file)).find("\n" + line + "\n") != std::string::npos;
  }
  [[nodiscard]] std::vector<std::string> Started() const {
    std::vector<std::string> lines;
    std::istringstream log(desktop.Home().Read("log"));
    for (std::string line; std::getline(log, line);) lines.push_back(line);
    std::ranges::sort(lines);
    return lines;
  }

  std::size_t watchers_ = 1;
};

TEST_P(RecipeRun, DoesWhatThePageSays) {
  ASSERT_FALSE(GetParam().removed.empty()) << "the page says nothing of a removal";
  desktop.Start();
  ASSERT_TRUE(desktop.Traced("Watch - Event", watchers_));
  ExpectDone(GetParam().started);
  desktop.InsertCard(1, {desktop.Path("ann.der")});
  ASSERT_TRUE(desktop.Traced("Watch - Connected slot 1", watchers_));
  ExpectDone(GetParam().inserted);
  desktop.RemoveCard(1);
  ASSERT_TRUE(desktop.Traced("Watch - Disconnected slot 1", watchers_));
  ExpectDone(GetParam().removed);
  if (GetParam().started.empty()) return;
  // As after a power cut: nobody saw the card go.
  desktop.InsertCard(1, {desktop.Path("ann.der")});
  ASSERT_TRUE(desktop.Traced("Watch - Connected slot 1", 2 * watchers_));
  ExpectDone(GetParam().inserted);
  desktop.Stop(SIGKILL);
  ASSERT_TRUE(desktop.Traced("Watch - Stopped", watchers_ - 1))
      << "an extra watcher is still there";
  desktop.RemoveCard(1);
  desktop.Start();
  ExpectDone(GetParam().started);
}

std::string NameOf(const ::testing::TestParamInfo<Recipe>& test) {
  std::string name = test.param.title;
  std::erase_if(name, [](unsigned char c) { return std::isalnum(c) == 0; });
  return name;
}
INSTANTIATE_TEST_SUITE_P(Page, RecipeRun, ::testing::ValuesIn(ReadPage(QIXX_RECIPES)), NameOf);

}  // namespace
}  // namespace qixx::testing
