#include "runtime/text.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <limits>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

namespace qixx {
namespace {

using Bytes = std::vector<std::uint8_t>;
constexpr std::size_t kNone = std::string_view::npos;

TEST(TextTest, CopiesRespectTheArea) {
  std::array<char, 5> area = {'z', 'z', 'z', 'z', 'z'};
  EXPECT_EQ(TextOf(area), "zzzzz") << "no terminator: the whole area";
  EXPECT_EQ(CopyTextCut(area, "abcdefgh"), 4u);
  EXPECT_FALSE(CopyTextIfFits(area, "12345"));
  EXPECT_EQ(TextOf(area), "abcd") << "left alone";
  EXPECT_TRUE(CopyTextIfFits(area, std::string_view("12\0abcdef", 9))) << "ends at the zero byte";
  EXPECT_EQ(TextOf(area), "12");
  EXPECT_EQ(CopyTextCut({}, "a"), 0u);
}

TEST(TextTest, ComparesAndFindsInAnyLetterCase) {
  struct Row {
    std::string_view a, b;
    std::size_t limit;
    int result;
  };
  const Row rows[] = {
      {"abc", "ABCD", 3, 0},        {"abc", "ABCD", 4, -1},
      {"abcd", "ABC", kNone, 1},    {"a", "C", kNone, -2},
      {"Z", "[", kNone, 'z' - '['}, {"\xC4", "\xE4", kNone, -32},
      {"\xFF", "a", kNone, 0x9E},   {"x", "y", 0, 0},
      {"@", "`", kNone, -32},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(CompareNoCase(row.a, row.b, row.limit), row.result) << row.a << " / " << row.b;
  }
  EXPECT_TRUE(StartsWithNoCase("-Hide x", "-hide"));
  EXPECT_FALSE(StartsWithNoCase("-hid", "-hide"));
  EXPECT_EQ(FindChar("abc", '\0'), 3u);
  EXPECT_EQ(FindChar("abc", 'd'), kNone);
  EXPECT_EQ(FindTextNoCase("xx %upn% %UPN%", "%UPN%", 4), 9u);
  EXPECT_EQ(FindTextNoCase("ab", "abc"), kNone);
  EXPECT_EQ(FindTextNoCase("ab", "", 9), kNone);
}

TEST(TextTest, ReadsFieldsAndNumbers) {
  std::string_view field;
  EXPECT_TRUE(GetField("a,,c", 2, ',', field));
  EXPECT_EQ(field, "c");
  EXPECT_FALSE(GetField("a,,c", 3, ',', field));
  EXPECT_TRUE(GetField("", 0, ',', field));
  EXPECT_EQ(SkipBlanks("  \ta "), "\ta ");
  EXPECT_EQ(DropTrailingBlanks("   "), "");

  constexpr auto kMost = std::numeric_limits<std::uint64_t>::max();
  EXPECT_EQ(ParseDecimal("  12x3"), 12u);
  EXPECT_EQ(ParseDecimal("-1"), 0u);
  EXPECT_EQ(ParseDecimal("18446744073709551616"), kMost);
  EXPECT_EQ(ParseSigned(" -7"), -7);
  EXPECT_EQ(ParseSigned("-99999999999999999999"), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(ParseSigned("9223372036854775808"), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(ParseNumber(" 0XfFg"), 0xFFu);
  EXPECT_EQ(ParseNumber("0x1ffffffffffffffff"), kMost);
  EXPECT_EQ(ParseNumber("010"), 10u);
}

TEST(TextTest, ReplacesWithinTheArea) {
  struct Row {
    const char *text, *from, *to, *result;
  };
  const Row rows[] = {
      {"a%b%c", "%", "--", "a--b--c"},
      {"aaaa", "aa", "a", "aa"},
      {"x", "x", "xx", "xx"},
      {"abab", "ab", nullptr, ""},
      {"empty", "", "x", "empty"},
      {"...", ".", "four", "fourfour."},  // a third one would leave no room for the terminator
  };
  for (const Row& row : rows) {
    std::array<char, 12> area{};
    CopyTextCut(area, row.text);
    ReplaceAll(area, row.from, row.to);
    EXPECT_EQ(TextOf(area), row.result) << row.text;
  }
  std::array<char, 12> area{"%Upn%-%upn%"};
  EXPECT_TRUE(ReplaceAllNoCase(area, "%UPN%", "me"));
  EXPECT_EQ(TextOf(area), "me-me");
  EXPECT_FALSE(ReplaceAllNoCase(area, "%UPN%", "me"));
}

TEST(TextTest, HexadecimalKeepsToTheArea) {
  const Bytes data = {0x0A, 0xFF};
  std::array<char, 5> area{"zzzz"};
  EXPECT_EQ(HexEncode(data, area), 4);
  EXPECT_EQ(TextOf(area), "0AFF");
  area[4] = '!';
  EXPECT_EQ(HexEncode(data, std::span(area).first(4)), 4);
  EXPECT_EQ(area[4], '!') << "no room, no terminator";
  EXPECT_EQ(HexEncode(data, std::span(area).first(3)), -1);

  Bytes out(2);
  EXPECT_EQ(HexDecode("0x0a:ff 0", out), 2) << "the odd digit is ignored";
  EXPECT_EQ(out, data);
  EXPECT_EQ(HexDecode("0x", out), 0);
  EXPECT_EQ(HexDecode("0a ff 01", out), -1);
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
    expected.push_back('\n');
    EXPECT_EQ(lines, expected);
  }
}

TEST(TextTest, Base64DecodesWhatStandsInFiles) {
  struct Row {
    const char* name;
    std::string_view text;
    int result;
    std::string_view bytes;
  };
  const Row rows[] = {
      {"published example", "Zm9vYmE=", 5, "fooba"},
      {"armour", "-----BEGIN X-----\r\n\r\nZm9v\r\nYg==\n-----END X-----\nZm9v", 4, "foob"},
      {"armour line alone", "-----BEGIN X-----", 0, ""},
      {"dash inside is dropped", "Zm-9v", 3, "foo"},
      {"ends at padding", "Zg==Zm9v", 1, "f"},
      {"ends at a zero byte", std::string_view("Zm9v\0Zm9v", 9), 3, "foo"},
      {"high bytes are dropped", "\xC3\xA4Zm\xFF!9v", 3, "foo"},
      {"one character left over", "Zm9vZ", 3, "foo"},
      {"three characters left over", "Zm9vZm8", 5, "foofo"},
      {"too long for the area", "Zm9vYmFyZg", -1, ""},
  };
  for (const Row& row : rows) {
    Bytes out(6);
    const int result = Base64Decode(out, row.text);
    EXPECT_EQ(result, row.result) << row.name;
    const auto length = result < 0 ? 0 : static_cast<std::size_t>(result);
    EXPECT_EQ(std::string(out.begin(), out.end()).substr(0, length), row.bytes) << row.name;
  }
}

TEST(TextTest, Utf16BecomesUtf8) {
  // a, umlaut, euro, pair, lone high, b, lone low, zero, high at the end, odd byte
  const Bytes bytes = {'a',  0,   0xE4, 0, 0xAC, 0x20, 0x3D, 0xD8, 0x00, 0xDE, 0x3D,
                       0xD8, 'b', 0,    0, 0xDE, 0,    0,    0x3D, 0xD8, 0x42};
  EXPECT_EQ(Utf16ToUtf8(bytes), std::string("a\u00E4\u20AC\U0001F600\uFFFD"
                                            "b\uFFFD\0\uFFFD",
                                            21));
}

}  // namespace
}  // namespace qixx
