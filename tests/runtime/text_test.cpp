#include "runtime/text.h"

#include <gtest/gtest.h>

#include "runtime/spare_text.h"

namespace qixx::testing {
namespace {

TEST(Codecs, FillTheLastGroupEndLinesAndPassOverWhatIsNoDigit) {
  const std::pair<std::string, std::string> rows[] = {
      {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"\xFF\xFE\xFD\xFC", "//79/A=="}};
  for (const auto& [plain, encoded] : rows) {
    EXPECT_EQ(runtime::Base64Encode(runtime::AsBytes(plain)), encoded);
    EXPECT_EQ(runtime::AsText(runtime::Base64Decode(encoded)), plain);
  }
  const std::string line(64, 'A');
  EXPECT_EQ(runtime::Base64EncodeLines(std::vector<std::uint8_t>(48)), line + "\n");
  EXPECT_EQ(runtime::Base64EncodeLines(std::vector<std::uint8_t>(50)), line + "\nAAA=\n");
  EXPECT_EQ(runtime::Base64EncodeLines({}), "\n");
  EXPECT_EQ(runtime::AsText(runtime::HexDecode("0x41 4a-4Bg4")), "AJK");
  EXPECT_EQ(runtime::HexEncode(runtime::AsBytes("\x09\x0A\x9F\xF0")), "090A9FF0");
}

}  // namespace
}  // namespace qixx::testing
