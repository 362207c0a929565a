// What the tree and the program are made of: folders that stand on each other in one direction, a
// program that links the language's runtime only, and pages that name what is there.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/openssl.h"
#include "tests/support/temporary_folder.h"

namespace qixx::testing {
namespace {

/// What a shell command prints in the root of the tree; nothing when it failed.
std::string Printed(const std::string& command) {
  return OutputOf("cd '" QIXX_SOURCE_DIR "' && " + command);
}

/// The command prints lines, and only such as `allowed` matches as a whole.
void ExpectOnly(const std::string& command, const std::string& allowed) {
  EXPECT_NE(Printed(command), "") << command;
  EXPECT_EQ(Printed(command + " | grep -vxE '" + allowed + "'"), "") << command;
}

TEST(Layout, IncludesPointDownOnly) {
  const std::pair<std::string, std::string> allowed[] = {
      {"runtime", "runtime"},
      {"der", "der|runtime"},
      {"config", "config|runtime"},
      {"pkcs11", "pkcs11|config|der|runtime"},
      {"watch", "watch|pkcs11|config|der|runtime"},
      {"bridge", "bridge|pkcs11|config|runtime"},
      {"softcard", "softcard|pkcs11"},
  };
  for (const auto& [folder, others] : allowed) {
    ExpectOnly("grep -hoE '^# *include *\"[^/]*' " + folder + "/*.[ch]*", ".*\"(" + others + ")");
  }
}

TEST(Layout, ProgramAndBridgeLinkTheRuntimeOnly) {
  for (const std::string file : {QIXX_PROGRAM, QIXX_BRIDGE}) {
    ExpectOnly("readelf -dW '" + file + "' | grep NEEDED",
               R"(.*\[(lib(stdc\+\+|m|gcc_s|c|dl|asan|ubsan|tsan)|ld-linux.*)\.so.*)");
  }
  ExpectOnly("nm -DP --defined-only '" QIXX_BRIDGE "'", "(C_|Qix[A-Za-z]* ).*");
}

TEST(Layout, PagesNameWhatIsThere) {
  const TemporaryFolder folder;
  const std::string known = folder.Path("known"), files = folder.Path("files");
  const std::string find = "find .ci * -path 'build*' -prune -o -print";
  // Units, and every word of the code but those below.
  Printed("{ " + find + " | sed -E 's|.*/||; s|\\.[^.]*$||'; " + find +
          " | grep '\\.\\(cpp\\|h\\)$' | grep -v layout | xargs grep -ohE '\\w+'; } > " + known);
  Printed(find + " | sed -E 'p; s|\\.[^./]*$||' > " + files);
  // Three marks change sides as one does, so each second piece is code.
  const std::string code =
      "awk 'BEGIN { RS = \"`\" } FNR % 2 == 0 && !/^sh\\n/' CONTRIBUTING.md docs/design.md | ";
  // A name in CamelCase, a constant, a unit or a test program; then what only the recipes make.
  ExpectOnly(code + R"(grep -oE '\b([A-Z]+[a-z]\w*|k[A-Z]\w*|[a-z]+(_[a-z]+)+)\b')" +
                 " | grep -vxFf " + known,
             "CamelCase|OtherSlotsDoNotCount|RunTouch|TouchMakesAnEmptyFile|TouchedFile|kMax|kSlot|"
             "kTouch");
  // A path that begins with a folder of ours.
  ExpectOnly(
      code + R"(grep -oE '\b[[:alnum:]_.]+(/[[:alnum:]_.]+)+')" +
          " | grep -E \"^($(ls -d .ci [a-z]*/ | grep -v ^build | tr -d / | paste -sd '|'))/\"" +
          " | grep -vxFf " + files,
      "fuzz/corpus/TARGET");
}

}  // namespace
}  // namespace qixx::testing
