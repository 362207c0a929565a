// What the tree and the program are made of: folders that stand on each other in one direction, and
// a program that links the language's runtime only.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <sstream>
#include <string>

#include "tests/support/openssl.h"

namespace qixx::testing {
namespace {

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

}  // namespace
}  // namespace qixx::testing
