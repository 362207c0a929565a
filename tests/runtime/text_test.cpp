#include "runtime/text.h"

#include <gtest/gtest.h>

#include <array>
#include <limits>
#include <numeric>
#include <vector>

namespace qixx {
namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(TextTest, CopiesRespectTheArea) {
  std::array<char, 5> area = {'z', 'z', 'z', 'z', 'z'};
  EXPECT_EQ(TextOf(area), "zzzzz") << "no terminator: the whole area";
  EXPECT_EQ(CopyTextCut(area, "abcdefgh"), 4u);
  EXPECT_FALSE(CopyTextIfFits(area, "12345"));
  EXPECT_EQ(TextOf(area), "abcd") << "left alone";
  EXPECT_TRUE(CopyTextIfFits(area, std::string_view("12\0abcdef", 9))) << "ends at the zero byte";
}

TEST(TextTest, ComparesAndFindsInAnyLetterCase) {
  EXPECT_EQ(CompareNoCase("abc", "ABCD", 4), -1);
  EXPECT_EQ(CompareNoCase("@", "`"), -32) << "letters only";
  EXPECT_EQ(CompareNoCase("\xFF", "a"), 0x9E) << "unsigned bytes";
  EXPECT_FALSE(StartsWithNoCase("-hid", "-Hide"));
  EXPECT_EQ(FindTextNoCase("xx %upn% %UPN%", "%UPN%", 4), 9u);
}

TEST(TextTest, ReadsNumbers) {
  EXPECT_EQ(ParseDecimal("18446744073709551616"), std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(ParseSigned("-99999999999999999999"), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(ParseSigned("9223372036854775808"), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(ParseNumber(" 0XfFg"), 0xFFu);
}

TEST(TextTest, ReplacesWithinTheArea) {
  const char* const rows[][4] = {
      {"%Upn%-%upn%", "%UPN%", "me", "me-me"},
      {"aaaa", "aa", "a", "aa"},
      {"x", "x", "xx", "xx"},
      {"empty", "", "x", "empty"},
      {"...", ".", "four", "fourfour."},  // a third one would leave no room for the terminator
  };
  for (const auto& [text, from, to, result] : rows) {
    std::array<char, 12> area{};
    CopyTextCut(area, text);
    const bool replaced = ReplaceAllNoCase(area, from, to);
    EXPECT_EQ(TextOf(area), result);
    EXPECT_EQ(replaced, TextOf(area) != text) << text;
  }
}

TEST(TextTest, HexadecimalKeepsToTheArea) {
  Bytes data = {0x0A, 0xFF};
  std::array<char, 5> area = {'!', '!', '!', '!', '!'};
  EXPECT_EQ(HexEncode(data, std::span(area).first(4)), 4) << "no room, no terminator";
  EXPECT_EQ(TextOf(area), "0AFF!");
  EXPECT_EQ(HexEncode(data, std::span(area).first(3)), -1);
  EXPECT_EQ(HexDecode("0x1b:fe 0", data), 2) << "the odd digit is ignored";
  EXPECT_EQ(data, (Bytes{0x1B, 0xFE}));
  EXPECT_EQ(HexDecode("0a ff 01", data), -1);
}

TEST(TextTest, Base64RoundTripsAtEveryLength) {
  for (std::size_t length = 0; length < 200; ++length) {
    Bytes data(length);
    std::iota(data.begin(), data.end(), static_cast<std::uint8_t>(length * 7));
    const std::size_t encoded = (length + 2) / 3 * 4;
    std::vector<char> area(encoded + 1);
    ASSERT_EQ(Base64Encode(area, data), static_cast<int>(encoded));
    EXPECT_EQ(Base64Encode(std::span(area).first(encoded), data), -1) << "needs a terminator";
    Bytes decoded(length);
    ASSERT_EQ(Base64Decode(decoded, TextOf(area)), static_cast<int>(length));
    EXPECT_EQ(decoded, data);

    char* lines = nullptr;
    const int counted = Base64EncodeLines(data, lines);
    const std::unique_ptr<char[]> owner(lines);
    std::string expected(area.data());
    for (std::size_t at = 64; at < expected.size(); at += 65) expected.insert(at, 1, '\n');
    EXPECT_EQ(counted, static_cast<int>(expected.size())) << "without the last line end";
    EXPECT_EQ(lines, expected + '\n');
  }
}

TEST(TextTest, Base64DecodesWhatStandsInFiles) {
  const std::pair<std::string, std::string> rows[] = {
      {"-----BEGIN X-----\r\n\r\nZm9v\r\nYg==\n-----END X-----\nZm9v", "foob"},
      {"Zm-9v", "foo"},
      {"Zg==Zm9v", "f"},
      {std::string("Zm9v\0Zm9v", 9), "foo"},
      {"\xC3\xA4Zm\xFF!9v", "foo"},
      {"Zm9vZm8", "foofo"},
  };
  Bytes out(6);
  for (const auto& [text, bytes] : rows) {
    ASSERT_EQ(Base64Decode(out, text), static_cast<int>(bytes.size())) << text;
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), out.begin())) << text;
  }
  EXPECT_EQ(Base64Decode(out, "Zm9vYmFyZg"), -1);
}

TEST(TextTest, Utf16BecomesUtf8) {
  // a, umlaut, euro, pair, lone high, b, lone low, zero, odd byte
  const std::uint8_t bytes[] = {'a',  0,    0xE4, 0, 0xAC, 0x20, 0x3D, 0xD8, 0x00, 0xDE,
                                0x3D, 0xD8, 'b',  0, 0,    0xDE, 0,    0,    0x42};
  EXPECT_EQ(Utf16ToUtf8(bytes), std::string("a\u00E4\u20AC\U0001F600\uFFFDb\uFFFD\0", 18));
}

}  // namespace
}  // namespace qixx
