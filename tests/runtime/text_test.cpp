#include "runtime/text.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace qixx::runtime {
namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(TextTest, ComparesFindsAndTakesApart) {
  EXPECT_EQ(CompareNoCase("AZ", "az"), 0);
  EXPECT_EQ(CompareNoCase("@", "`"), -32) << "letters only";
  EXPECT_EQ(CompareNoCase("\xFF", "a"), 0x9E) << "unsigned bytes";
  EXPECT_EQ(FindTextNoCase("xx %upn% %UPN%", "%UPN%", 4), 9u);
  for (const auto find : {FindText, FindTextNoCase}) {
    EXPECT_EQ(find("longer", "longest of all", 0), std::string_view::npos);
    EXPECT_EQ(find("x", "", 2), std::string_view::npos);
  }
  EXPECT_EQ(ParseDecimal("18446744073709551616"), UINT64_MAX);
}

TEST(TextTest, DecodersDropWhatIsNoDigit) {
  EXPECT_EQ(HexDecode("0x1b:fe 0"), (Bytes{0x1B, 0xFE})) << "the odd digit is ignored";
  EXPECT_EQ(AsText(Base64Decode("\xC3\xA4Zm\xFF-8=Zm9v")), "fo") << "ends at the padding";
  EXPECT_EQ(AsText(Base64Decode("-----BEGIN-----\r\n\r\nZm9v\nZg-END Zm9v")), "foof");
  EXPECT_EQ(Base64Decode("-no end of the line"), Bytes{});
}

TEST(TextTest, Utf16BecomesUtf8) {
  // a, umlaut, euro, pair, lone high, b, lone low, zero, odd byte
  const std::uint8_t bytes[] = {'a',  0,    0xE4, 0, 0xAC, 0x20, 0x3D, 0xD8, 0x00, 0xDE,
                                0x3D, 0xD8, 'b',  0, 0,    0xDE, 0,    0,    0x42};
  EXPECT_EQ(Utf16ToUtf8(bytes), std::string("a\u00E4\u20AC\U0001F600\uFFFDb\uFFFD\0", 18));
  std::string beyond;
  AppendUtf8(beyond, 0x110000);
  EXPECT_EQ(beyond, "\uFFFD");
}

}  // namespace
}  // namespace qixx::runtime
