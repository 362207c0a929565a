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

using Words = std::set<std::string>;

const std::map<std::string, Words> kMayInclude = {
    {"runtime", {"runtime"}},
    {"der", {"der", "runtime"}},
    {"config", {"config", "runtime"}},
    {"pkcs11", {"pkcs11", "config", "der", "runtime"}},
    {"watch", {"watch", "pkcs11", "config", "der", "runtime"}},
    {"bridge", {"bridge", "pkcs11", "config", "runtime"}},
    {"softcard", {"softcard", "pkcs11"}},
};

/// The lines that a shell command prints in the root of the tree.
Words LinesOf(const std::string& command) {
  std::istringstream output(OutputOf("cd '" QIXX_SOURCE_DIR "' && " + command));
  Words lines;
  for (std::string line; std::getline(output, line);) lines.insert(line);
  return lines;
}

TEST(Layout, IncludesPointDownOnly) {
  for (const auto& [folder, allowed] : kMayInclude) {
    const Words included =
        LinesOf("sed -nE 's|^# *include *\"([^/]*).*|\\1|p' " + folder + "/*.[ch]*");
    EXPECT_TRUE(included.contains(folder)) << "the include lines of " << folder << " are not found";
    for (const std::string& other : included) {
      EXPECT_TRUE(allowed.contains(other)) << folder << ": " << other;
    }
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
  const std::string exported = "nm -DP --defined-only '" QIXX_BRIDGE "'";
  EXPECT_EQ(OutputOf(exported + " | grep -vcE '^(C_|Qix[A-Za-z]* )'; true"), "0\n");
}

/// What only the recipes make, and words that stand for others.
const std::regex kInvented(
    "CamelCase|OtherSlotsDoNotCount|RunTouch|TouchMakesAnEmptyFile|TouchedFile|kMax|kSlot|kTouch|"
    "fuzz/corpus/TARGET");

TEST(Layout, PagesNameWhatIsThere) {
  // A name in CamelCase, a constant, a unit or a test program.
  const std::regex kName(R"(\b([A-Z]+[a-z]\w*|k[A-Z]\w*|[a-z]+(_[a-z]+)+)\b)");
  const std::regex kPath(R"([\w.]+(/[\w.]+)+)");
  const std::sregex_iterator kEnd;
  const std::string find = "find .ci * -path 'build*' -prune -o -print";
  const Words folders = LinesOf("ls -d .ci [a-z]*/ | grep -v ^build | tr -d /");
  Words known = LinesOf(find + " | sed -E 's|.*/||; s|\\.[^.]*$||'");  // units
  known.merge(
      LinesOf(find + " | grep '\\.\\(cpp\\|h\\)$' | grep -v layout | xargs grep -ohE '\\w+'"));
  Words files = LinesOf(find);
  files.merge(LinesOf(find + " | sed -E 's|\\.[^./]*$||'"));
  for (const std::string page : {"CONTRIBUTING.md", "docs/design.md"}) {
    std::size_t seen = 0;
    std::istringstream pieces(TemporaryFolder::ReadFile(QIXX_SOURCE_DIR "/" + page));
    std::string code;
    // Three marks change sides as one does, so each second piece is code.
    while (std::getline(pieces, code, '`') && std::getline(pieces, code, '`')) {
      std::sregex_iterator name(code.begin(), code.end(), kName);
      for (; !code.starts_with("sh\n") && name != kEnd; ++name, ++seen) {
        EXPECT_TRUE(known.contains((*name)[0]) || std::regex_match(name->str(), kInvented))
            << page << ": " << (*name)[0] << " in " << code;
      }
      for (std::sregex_iterator path(code.begin(), code.end(), kPath); path != kEnd; ++path) {
        const std::string file = path->str();
        const bool isOurs = folders.contains(file.substr(0, file.find('/')));
        EXPECT_TRUE(!isOurs || files.contains(file) || std::regex_match(file, kInvented))
            << page << ": " << file;
      }
    }
    EXPECT_GT(seen, 10U) << page;
  }
}

}  // namespace
}  // namespace qixx::testing
