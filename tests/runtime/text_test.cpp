#include "runtime/text.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <numeric>
#include <vector>

namespace qixx::runtime {
namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(TextTest, ComparesFindsAndReadsNumbers) {
  EXPECT_EQ(CompareNoCase("abc", "ABCD", 4), -1);
  EXPECT_EQ(CompareNoCase("@", "`"), -32) << "letters only";
  EXPECT_EQ(CompareNoCase("\xFF", "a"), 0x9E) << "unsigned bytes";
  EXPECT_EQ(FindTextNoCase("xx %upn% %UPN%", "%UPN%", 4), 9u);
  EXPECT_EQ(ParseDecimal("18446744073709551616"), UINT64_MAX);
  EXPECT_EQ(ParseSigned("-99999999999999999999"), INT64_MIN);
  EXPECT_EQ(ParseSigned("9223372036854775808"), INT64_MAX);
}

TEST(TextTest, ReplacesWithinTheArea) {
  const char* const rows[][4] = {
      {"%Upn%-%upn%", "%UPN%", "me", "me-me"},
      {"x", "x", "xx", "xx"},
      {"empty", "", "x", "empty"},
      {"...", ".", "four", "fourfour."}};  // a third one would leave no room for the terminator
  for (const auto& [text, from, to, result] : rows) {
    std::array<char, 12> area{};
    CopyTextCut(area, text);
    ReplaceAllNoCase(area, from, to);
    EXPECT_EQ(TextOf(area), result);
  }
}

TEST(TextTest, Base64RoundTripsAtEveryLength) {
  for (std::size_t length = 0; length < 200; ++length) {
    Bytes data(length), decoded(length);
    std::iota(data.begin(), data.end(), static_cast<std::uint8_t>(length * 7));
    char* lines = nullptr;
    const auto counted = static_cast<std::size_t>(Base64EncodeLines(data, lines));
    const std::unique_ptr<char[]> owner(lines);
    const std::string text = lines;
    EXPECT_EQ(text.size(), counted + 1) << "the last line end is not counted";
    EXPECT_TRUE(text.ends_with('\n'));
    for (std::size_t at = 64; at < counted; at += 65) EXPECT_EQ(text[at], '\n');
    EXPECT_EQ(Base64Decode(decoded, text), static_cast<int>(length));
    EXPECT_EQ(decoded, data);
  }
}

TEST(TextTest, CodecsKeepToTheAreaAndDropWhatIsNone) {
  Bytes data = {0x0A, 0xFF};
  std::array<char, 5> area = {'!', '!', '!', '!', '!'};
  EXPECT_EQ(HexEncode(data, std::span(area).first(3)), -1);
  EXPECT_EQ(HexEncode(data, std::span(area).first(4)), 4) << "no room, no terminator";
  EXPECT_EQ(TextOf(area), "0AFF!");
  EXPECT_EQ(HexDecode("0a ff 01", data), -1);
  EXPECT_EQ(HexDecode("0x1b:fe 0", data), 2) << "the odd digit is ignored";
  EXPECT_EQ(data, (Bytes{0x1B, 0xFE}));
  EXPECT_EQ(Base64Encode(std::span(area).first(4), data), -1) << "no room, no text";
  EXPECT_EQ(Base64Decode(data, "Zm9v"), -1);
  EXPECT_EQ(Base64Decode(data, "\xC3\xA4Zm\xFF-8=Zm9v"), 2) << "ends at the padding";
  EXPECT_EQ(data, (Bytes{'f', 'o'}));
}

TEST(TextTest, Utf16BecomesUtf8) {
  // a, umlaut, euro, pair, lone high, b, lone low, zero, odd byte
  const std::uint8_t bytes[] = {'a',  0,    0xE4, 0, 0xAC, 0x20, 0x3D, 0xD8, 0x00, 0xDE,
                                0x3D, 0xD8, 'b',  0, 0,    0xDE, 0,    0,    0x42};
  EXPECT_EQ(Utf16ToUtf8(bytes), std::string("a\u00E4\u20AC\U0001F600\uFFFDb\uFFFD\0", 18));
}

}  // namespace
}  // namespace qixx::runtime
