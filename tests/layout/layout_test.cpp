// What the tree and the program are made of: folders that stand on each other in one direction, a
// program that links the language's runtime only, and pages that name what is there.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "tests/support/openssl.h"
#include "tests/support/temporary_folder.h"

namespace qixx::testing {
namespace {

namespace fs = std::filesystem;

const std::map<std::string, std::set<std::string>> kMayInclude = {
    {"runtime", {"runtime"}},
    {"der", {"der", "runtime"}},
    {"config", {"config", "runtime"}},
    {"pkcs11", {"pkcs11", "config", "der", "runtime"}},
    {"watch", {"watch", "pkcs11", "config", "der", "runtime"}},
    {"bridge", {"bridge", "pkcs11", "config", "runtime"}},
    {"softcard", {"softcard", "pkcs11"}},
};

TEST(Layout, IncludesPointDownOnly) {
  for (const auto& [folder, allowed] : kMayInclude) {
    const std::string files = std::string(QIXX_SOURCE_DIR "/").append(folder).append("/*.[ch]*");
    std::istringstream includes(OutputOf("sed -nE 's/^# *include *\"(.*)\"/\\1/p' " + files));
    std::size_t seen = 0;
    for (std::string file; std::getline(includes, file); ++seen) {
      EXPECT_TRUE(allowed.contains(file.substr(0, file.find('/')))) << folder << ": " << file;
    }
    EXPECT_GT(seen, 5U) << "the include lines of " << folder << " were not found";
  }
}

TEST(Layout, ProgramAndBridgeLinkTheRuntimeOnly) {
  const std::string others =
      R"( | grep -vE '\[(lib(stdc\+\+|m|gcc_s|c|dl|asan|ubsan|tsan)|ld-linux.*)\.so'; true)";
  for (const std::string file : {QIXX_PROGRAM, QIXX_BRIDGE}) {
    const std::string needed = "readelf -dW '" + file + "' | grep NEEDED";
    EXPECT_NE(OutputOf(needed), "") << "readelf is needed (package binutils)";
    EXPECT_EQ(OutputOf(needed + others), "") << file;
  }
  EXPECT_EQ(
      OutputOf("nm -DP --defined-only '" QIXX_BRIDGE "' | grep -vcE '^(C_|Qix[A-Za-z]* )'; true"),
      "0\n");
}

// --- pages --------------------------------------------------------------------------------------

/// A layer's name in front, or none, and a name in CamelCase, a constant, a unit or a test program.
const std::regex kName(R"((\w+::)?\b([A-Z]+[a-z]\w*|k[A-Z]\w*|[a-z]+(_[a-z]+)+)\b)");
const std::regex kPath(R"([\w.]+(/[\w.]+)+)");
constexpr const char* kFolders[] = {
    ".ci",       "bench",  "bridge",  "cmake",   "config",   "der",     "docs",  "fuzz",
    "packaging", "pkcs11", "runtime", "scripts", "softcard", "systemd", "tests", "watch"};
/// What only the recipes make, and words that stand for others.
const std::set<std::string> kInvented = {"CamelCase",
                                         "OtherSlotsDoNotCount",
                                         "RunTouch",
                                         "TouchMakesAnEmptyFile",
                                         "TouchedFile",
                                         "kMax",
                                         "kSlot",
                                         "kTouch",
                                         "fuzz/corpus/TARGET"};

const std::sregex_iterator kEnd;

struct Tree {
  std::map<std::string, std::set<std::string>> words;  ///< in the code of each folder
  std::set<std::string> all;
  std::set<std::string> files;  ///< paths, with and without their ending
  std::set<std::string> units;  ///< names of files without folder and ending
};
Tree ReadTree() {
  static const std::regex word("\\w+");
  Tree tree;
  const fs::path root = QIXX_SOURCE_DIR;
  for (const auto& entry : fs::directory_iterator(root)) tree.units.insert(entry.path().stem());
  for (const std::string folder : kFolders) {
    for (const fs::path& file : fs::recursive_directory_iterator(root / folder)) {
      fs::path name = fs::relative(file, root);
      tree.files.insert(name);
      tree.files.insert(name.replace_extension());
      tree.units.insert(name.filename());
      const bool isCode = file.extension() == ".cpp" || file.extension() == ".h";
      if (!isCode || name == "tests/layout/layout_test") continue;
      const std::string text = TemporaryFolder::ReadFile(file);
      for (std::sregex_iterator at(text.begin(), text.end(), word); at != kEnd; ++at) {
        tree.words[folder].insert(at->str());
      }
    }
    tree.all.insert(tree.words[folder].begin(), tree.words[folder].end());
  }
  return tree;
}

bool IsKnown(const Tree& tree, const std::smatch& name) {
  const std::string head = name[1];
  const std::string layer = head.substr(0, head.find(':'));
  if (kMayInclude.contains(layer)) return tree.words.at(layer).contains(name[2]);
  return tree.all.contains(name[2]) || tree.units.contains(name[2]);
}

TEST(Layout, PagesNameWhatIsThere) {
  const Tree tree = ReadTree();
  for (const std::string page : {"CONTRIBUTING.md", "docs/design.md"}) {
    const std::string text = TemporaryFolder::ReadFile(QIXX_SOURCE_DIR "/" + page);
    std::size_t seen = 0;
    std::istringstream pieces(text);
    std::string code;
    // Three marks change sides as one does, so each second piece is code.
    while (std::getline(pieces, code, '`') && std::getline(pieces, code, '`')) {
      const bool isShell = code.starts_with("sh\n");
      std::sregex_iterator name(code.begin(), code.end(), kName);
      for (; !isShell && name != kEnd; ++name) {
        EXPECT_TRUE(IsKnown(tree, *name) || kInvented.contains((*name)[2]))
            << page << ": " << (*name)[0] << " in " << code;
        ++seen;
      }
      for (std::sregex_iterator path(code.begin(), code.end(), kPath); path != kEnd; ++path) {
        const std::string file = path->str();
        const bool isOurs = tree.words.contains(file.substr(0, file.find('/')));
        EXPECT_TRUE(!isOurs || tree.files.contains(file) || kInvented.contains(file))
            << page << ": " << file;
      }
    }
    EXPECT_GT(seen, 10U) << page;
  }
}

}  // namespace
}  // namespace qixx::testing
