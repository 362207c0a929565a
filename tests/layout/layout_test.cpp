// What the tree and the program are made of: folders that stand on each other in one direction, and
// a program that links the language's runtime only.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <string_view>

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

/// What stands between the first `open` behind `from` and the next `close`; empty without them.
std::string_view Between(std::string_view line, std::string_view from, char open, char close) {
  const std::size_t start = line.find(from);
  if (start == std::string_view::npos) return {};
  const std::size_t begin = line.find(open, start + from.size());
  if (begin == std::string_view::npos) return {};
  const std::size_t end = line.find(close, begin + 1);
  return end == std::string_view::npos ? std::string_view{}
                                       : line.substr(begin + 1, end - begin - 1);
}

TEST(Layout, IncludesPointDownOnly) {
  std::size_t seen = 0;
  for (const auto& [folder, allowed] : kMayInclude) {
    for (const auto& file :
         std::filesystem::directory_iterator(std::filesystem::path(QIXX_SOURCE_DIR) / folder)) {
      std::ifstream text(file.path());
      for (std::string line; std::getline(text, line);) {
        if (!line.starts_with('#')) continue;
        const std::string_view included = Between(line, "include", '"', '"');
        if (included.empty()) continue;
        ++seen;
        const std::size_t slash = included.find('/');
        ASSERT_NE(slash, std::string_view::npos) << file.path() << ": " << line;
        EXPECT_TRUE(allowed.contains(std::string(included.substr(0, slash))))
            << file.path() << ": " << line;
      }
    }
  }
  EXPECT_GT(seen, 50U) << "the include lines were not found";
}

TEST(Layout, ProgramAndBridgeLinkTheRuntimeOnly) {
  const std::set<std::string, std::less<>> allowed = {
      "libstdc++.so.6",       "libm.so.6",
      "libgcc_s.so.1",        "libc.so.6",
      "libdl.so.2",           "libasan.so.8",
      "libubsan.so.1",        "libtsan.so.2",
      "ld-linux-x86-64.so.2", "ld-linux-aarch64.so.1"};
  for (const char* file : {QIXX_PROGRAM, QIXX_BRIDGE}) {
    std::size_t seen = 0;
    std::istringstream lines(OutputOf("readelf -d '" + std::string(file) + "'"));
    for (std::string line; std::getline(lines, line);) {
      const std::string_view library = Between(line, "(NEEDED)", '[', ']');
      if (library.empty()) continue;
      ++seen;
      EXPECT_TRUE(allowed.contains(library)) << file << " links " << library;
    }
    EXPECT_GT(seen, 0U) << "readelf (package binutils) gave no list of libraries of " << file;
  }
}

}  // namespace
}  // namespace qixx::testing
