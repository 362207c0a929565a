#include "der/der.h"

#include <gtest/gtest.h>

#include <tuple>

#include "tests/support/recipes.h"

namespace qixx::testing {
namespace {

TEST(DecodeLength, ReadsEveryForm) {
  // Name, header, bytes 0x41 behind it, length of content (-1 for a failure) and header.
  const std::tuple<const char*, const char*, std::size_t, int, int> rows[] = {
      {"two length bytes", "30820100", 252, 256, 4},
      {"header counts as available", "3005", 3, 5, 2},
      {"one byte less", "3005", 2, -1, 0},
      {"over 64 bits", "3089 010000000000000005", 9, -1, 0},
      {"indefinite", "3080 04024142 0000", 0, 6, 2},
      {"element without content ends it", "3080 040141 0500 99", 3, 3, 2},
  };
  for (const auto& [name, start, behind, expected, headerLength] : rows) {
    const auto length = der::DecodeLength(BytesOf(FromHex(start) + std::string(behind, 'A')));
    EXPECT_EQ(length ? static_cast<int>(length->content) : -1, expected) << name;
    EXPECT_EQ(length ? static_cast<int>(length->header) : 0, headerLength) << name;
  }
}

TEST(OidToText, WritesWhatFits) {
  const std::tuple<const char*, const char*, std::size_t, der::DerResult, const char*> rows[] = {
      {"fits", "0603550403", 7, der::DerResult::kOk, "2.5.4.3"},
      {"one character short", "0603550403", 6, der::DerResult::kTooSmall, "2.5.4"},
      {"first over 119", "06028837", 63, der::DerResult::kOk, "2.999"},
      {"over 31 bits", "0606 2A 8FFFFFFF7F", 63, der::DerResult::kOk, "1.2.-1"},
      {"subidentifier not ended", "060255 84", 63, der::DerResult::kBadLength, ""},
      {"no identifier", "0401 55", 63, der::DerResult::kWrongTag, ""},
  };
  for (const auto& [name, bytes, maxLength, result, expected] : rows) {
    const der::OidRecord oid = der::OidToText(BytesOf(FromHex(bytes)), maxLength);
    EXPECT_EQ(oid.result, result) << name;
    EXPECT_EQ(oid.text, expected) << name;
  }
}

}  // namespace
}  // namespace qixx::testing
