// The codecs of bytes as text.
#include "runtime/text.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "runtime/spare_text.h"

namespace qixx::testing {
namespace {

TEST(Base64, FillsTheLastGroupAndEndsItsLines) {
  const std::pair<std::string, std::string> rows[] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"\xFF\xFE\xFD\xFC", "//79/A=="}};
  for (const auto& [plain, encoded] : rows) {
    const std::span<const std::uint8_t> bytes = runtime::AsBytes(plain);
    EXPECT_EQ(runtime::Base64Encode(bytes), encoded);
    EXPECT_EQ(runtime::AsText(runtime::Base64Decode(encoded)), plain);
  }
  const std::string line(64, 'A');
  const std::vector<std::uint8_t> zeros(50);
  EXPECT_EQ(runtime::Base64EncodeLines(std::span(zeros).first(48)), line + "\n");
  EXPECT_EQ(runtime::Base64EncodeLines(zeros), line + "\nAAA=\n");
  EXPECT_EQ(runtime::Base64EncodeLines({}), "\n");
}

TEST(Hexadecimal, PassesOverWhatIsNoDigit) {
  const std::pair<std::string, std::string> rows[] = {
      {"0x41 4a-4B", "AJK"}, {"0x", ""}, {"414", "A"}, {"x41", "A"}, {"g", ""}};
  for (const auto& [text, expected] : rows) {
    EXPECT_EQ(runtime::AsText(runtime::HexDecode(text)), expected) << text;
  }
  EXPECT_EQ(runtime::HexEncode(runtime::AsBytes("\x09\x0A\x9F\xF0")), "090A9FF0");
}

}  // namespace
}  // namespace qixx::testing
