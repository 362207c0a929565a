#include "der/der.h"

#include <vector>

#include "tests/support/recipes.h"
#include "tests/support/trace_capture.h"

namespace qixx::testing {
namespace {

TEST(DecodeLength, ReadsEveryForm) {
  // Name, header, bytes 0x41 behind it, length, length of the header.
  const std::tuple<const char*, const char*, std::size_t, std::int32_t, std::size_t> rows[] = {
      {"one length byte", "308105", 5, 5, 3},
      {"two length bytes", "30820100", 252, 256, 4},
      {"two length bytes, 200 available", "30820100", 196, der::kDerBadLength, 0},
      {"header counts as available", "3005", 3, 5, 2},
      {"one byte less", "3005", 2, der::kDerBadLength, 0},
      {"over 64 bits", "3089 010000000000000005", 9, der::kDerBadLength, 0},
      {"one byte", "30", 0, der::kDerBadLength, 0},
      {"indefinite", "3080 04024142 0000", 0, 6, 2},
      {"element without content ends it", "3080 040141 0500 99", 3, 3, 2},
  };
  for (const auto& [name, start, behind, expected, headerLength] : rows) {
    TraceCapture trace;
    std::size_t header = 0;
    const std::int32_t length =
        der::DecodeLength(BytesOf(FromHex(start) + std::string(behind, 'A')), header);
    EXPECT_EQ(length, expected) << name;
    EXPECT_EQ(trace.Count("Der - Invalid length encoding"), length < 0 ? 1U : 0U) << name;
    EXPECT_TRUE(length < 0 || header == headerLength) << name;
  }
}

TEST(OidToText, WritesDottedText) {
  const std::tuple<const char*, const char*, std::size_t, std::int32_t, const char*> rows[] = {
      {"fits", "0603550403", 8, der::kDerOk, "2.5.4.3"},
      {"one character short", "0603550403", 7, der::kDerTooSmall, "2.5.4"},
      {"root 1, highest second", "06014F", 64, der::kDerOk, "1.39"},
      {"first over 119", "06028837", 64, der::kDerOk, "2.999"},
      {"over 31 bits", "0606 2A 8FFFFFFF7F", 64, der::kDerOk, "1.2.-1"},
      {"subidentifier not ended", "060255 84", 64, der::kDerBadLength, ""},
      {"content behind the input", "06035504", 64, der::kDerBadLength, ""},
      {"other tag", "0403550403", 64, der::kDerWrongTag, ""},
  };
  for (const auto& [name, bytes, size, result, expected] : rows) {
    std::vector<char> text(size, 'x');
    EXPECT_EQ(der::OidToText(BytesOf(FromHex(bytes)), text), result) << name;
    EXPECT_STREQ(text.data(), expected) << name;
  }
}

TEST(Encoding, WrapsIdentifiersAndContent) {
  TraceCapture trace;
  const std::pair<std::size_t, const char*> rows[] = {
      {127, "307F"}, {252, "3081FC"}, {65536, "3083010000"}};
  std::size_t length = 0;
  for (const auto& [content, header] : rows) {
    std::vector<std::uint8_t> buffer((length = content) + 5);
    EXPECT_EQ(der::WrapElement(0x30, buffer, length), der::kDerOk);
    EXPECT_EQ(der::AsText(der::Bytes(buffer).first(length - content)), FromHex(header));
  }
  std::array<std::uint8_t, 127> out{};
  EXPECT_EQ(der::WrapElement(0x30, out, length = 126), der::kDerTooSmall);
  EXPECT_TRUE(trace.Has("Der - Buffer too small: have 1, need 2"));

  EXPECT_EQ(Oid("2.999.311"), "\x06\x04\x88\x37\x82\x37");
  for (const std::string bad : {"nothing", "", "1.", "1.2.", "1.40", "3.1", "1..2", "1.2.x"}) {
    EXPECT_EQ(der::EncodeOid(bad, out, length), der::kDerWrongTag) << bad;
    EXPECT_NE(trace.Has("Der - Bad oid: '" + bad + "'"), bad.find('.') != bad.npos) << bad;
  }
}

}  // namespace
}  // namespace qixx::testing
