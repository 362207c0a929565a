#include "der/der.h"

#include <new>
#include <vector>

#include "tests/der/recipes.h"
#include "tests/support/trace_capture.h"

namespace {
bool refuseMemory = false;
bool refused = false;
}  // namespace

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  refused = refused || refuseMemory;
  if (refuseMemory) return nullptr;
  try {
    return ::operator new[](size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

namespace qixx::testing {
namespace {

TEST(DecodeLength, ReadsHeadersAndTracesAFailureOnce) {
  struct {
    const char *name, *header;
    std::size_t behind;  // bytes 0x41 behind the header
    std::int32_t length;
    std::size_t headerLength;
  } const rows[] = {
      {"short form", "3005", 5, 5, 2},
      {"one length byte", "308105", 5, 5, 3},
      {"two length bytes", "30820100", 252, 256, 4},
      {"two length bytes, 200 available", "30820100", 196, kDerBadLength, 0},
      {"leading zeros", "3084 00000001", 1, 1, 6},
      {"ten length bytes", "308A 00000000000000000005", 5, 5, 12},
      {"header counts as available", "3005", 3, 5, 2},
      {"one byte less", "3005", 2, kDerBadLength, 0},
      {"32 bits of ones", "3084 FFFFFFFF", 9, kDerBadLength, 0},
      {"over 64 bits", "3089 010000000000000005", 9, kDerBadLength, 0},
      {"length bytes missing", "3082 01", 0, kDerBadLength, 0},
      {"one byte", "30", 0, kDerBadLength, 0},
      {"nothing", "", 0, kDerBadLength, 0},
      {"indefinite", "3080 04024142 0000", 0, 6, 2},
      {"indefinite in indefinite", "3080 3080 040141 0000 0000", 3, 9, 2},
      {"element without content ends it", "3080 040141 0500 99", 3, 3, 2},
      {"no closing pair", "3080 040141", 0, kDerBadLength, 0},
      {"half a closing pair", "3080 040141 00", 0, kDerBadLength, 0},
      {"broken element inside", "3080 040941 0000", 0, kDerBadLength, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string input = FromHex(row.header) + std::string(row.behind, 'A');
    TraceCapture trace;
    std::size_t header = 0;
    EXPECT_EQ(DecodeLength(BytesOf(input), header), row.length);
    EXPECT_EQ(trace.Count("Der - Invalid length encoding"), row.length < 0 ? 1U : 0U);
    EXPECT_EQ(trace.Lines().size(), row.length < 0 ? 1U : 0U);
    EXPECT_TRUE(row.length < 0 || header == row.headerLength);
  }
}

TEST(TakeElement, KeepsToTheInputWhereTheLengthDoesNot) {
  const std::string input = FromHex("0603550403 0C0141");
  DerElement element;
  Bytes rest = BytesOf(input).first(4);
  EXPECT_EQ(TakeElement(rest, element), kDerBadLength);
  EXPECT_EQ(rest.size(), 4U);
  rest = BytesOf(input);
  ASSERT_EQ(TakeElement(rest, element), kDerOk);
  EXPECT_EQ(ToHex(element.content), "550403");
  EXPECT_EQ(rest.size(), 3U);
  OidRecord record;
  ASSERT_EQ(ReadOid(BytesOf(input), record), kDerOk);
  EXPECT_EQ(record.element.data(), element.whole.data());
  EXPECT_EQ(record.element.size(), 5U);
  EXPECT_EQ(record.Text(), "2.5.4.3");
}

TEST(OidToText, WritesDottedText) {
  struct {
    const char *name, *bytes;
    std::size_t size;
    std::int32_t result;
    const char* text;
  } const rows[] = {
      {"common name", "0603550403", 8, kDerOk, "2.5.4.3"},
      {"one character short", "0603550403", 7, kDerTooSmall, "2.5.4"},
      {"root 1, highest second", "06014F", 64, kDerOk, "1.39"},
      {"first over 119", "06028837", 64, kDerOk, "2.999"},
      {"first 119", "060177", 64, kDerOk, "2.39"},
      {"first 120", "060178", 64, kDerOk, "2.40"},
      {"over 31 bits", "0606 2A 8FFFFFFF7F", 64, kDerOk, "1.2.-1"},
      {"no content", "0600", 64, kDerOk, ""},
      {"subidentifier not ended", "060255 84", 64, kDerBadLength, ""},
      {"content behind the input", "06035504", 64, kDerBadLength, ""},
      {"other tag", "0403550403", 64, kDerWrongTag, ""},
      {"one byte", "06", 64, kDerBadLength, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string input = FromHex(row.bytes);
    std::vector<char> text(row.size, 'x');
    EXPECT_EQ(OidToText(BytesOf(input), text), row.result);
    EXPECT_STREQ(text.data(), row.text);
  }
}

TEST(WrapElement, ChoosesTheLengthFormAndRefusesByCapacity) {
  struct {
    std::size_t content, capacity;
    const char* header;  // empty: refused
  } const rows[] = {
      {3, 5, "3003"},
      {126, 127, ""},
      {127, 130, "307F"},
      {128, 131, "308180"},
      {252, 255, "3081FC"},
      {256, 260, "30820100"},
      {65536, 65541, "3083010000"},
      {65532, 65536, ""},
      {5, 65536, "3005"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.content);
    std::vector<std::uint8_t> buffer(row.capacity, 'A');
    std::size_t length = row.content;
    const std::string header = FromHex(row.header);
    ASSERT_EQ(WrapElement(0x30, buffer, length), header.empty() ? kDerTooSmall : kDerOk);
    EXPECT_EQ(length, row.content + header.size());
    EXPECT_EQ(AsText(Bytes(buffer).first(header.size())), header);
    EXPECT_EQ(buffer[length - 1], 'A');
  }
  TraceCapture trace;
  std::vector<std::uint8_t> small(127);
  std::size_t length = 126;
  EXPECT_EQ(WrapElement(0x30, small, length), kDerTooSmall);
  EXPECT_TRUE(trace.Has("Der - Buffer too small: have 1, need 2"));
}

TEST(EncodeOid, TakesDottedTextAndShortNames) {
  EXPECT_EQ(ToHex(BytesOf(Oid("CN"))), "0603550403");
  EXPECT_EQ(ToHex(BytesOf(Oid("2.999"))), "06028837");
  EXPECT_EQ(ToHex(BytesOf(Oid("1.3.6.1.4.1.311.20.2.3"))), "060A2B060104018237140203");
  for (const std::string bad : {"nothing", "", "1.", "1.2.", "1.40", "3.1", "1..2", "1.2.x", "1.-2",
                                "2.18446744073709551615"}) {
    TraceCapture trace;
    std::array<std::uint8_t, 32> out{};
    std::size_t length = 0;
    EXPECT_EQ(EncodeOid(bad, out, length), kDerWrongTag) << bad;
    EXPECT_TRUE(trace.Has("Der - Bad oid: '" + bad + "'"));
  }
}

TEST(CDer, OwnsACopy) {
  CDer der;
  const std::uint8_t* bytes = nullptr;
  std::uint64_t length = 0;
  std::string input = "bytes";
  ASSERT_EQ(der.SetData(BytesOf(input)), kDerOk);
  input = "other";
  EXPECT_EQ(der.GetData(bytes, length), kDerOk);
  EXPECT_EQ(AsText({bytes, length}), "bytes");
  EXPECT_EQ(der.Decode(), -666);
  EXPECT_EQ(der.Clear(), kDerOk);
  der.GetData(bytes, length);
  EXPECT_EQ(bytes, nullptr);
  EXPECT_EQ(length, 0U);
}

TEST(CDer, RunsOutOfMemory) {
  CDer der;
  CDerCert certificate;
  TraceCapture trace;
  refuseMemory = true;
  const std::int32_t results[] = {der.SetData(BytesOf("bytes")),
                                  certificate.SetData(BytesOf(Recipe().Build()))};
  refuseMemory = false;
  if (!refused) GTEST_SKIP() << "memory comes from elsewhere here";
  EXPECT_EQ(results[0], kDerOutOfMemory);
  EXPECT_EQ(results[1], kDerOutOfMemory);
  EXPECT_EQ(certificate.Compare(certificate), 0);
  EXPECT_TRUE(trace.Has("Der - Out of memory"));
  EXPECT_TRUE(trace.Has("DerCertificate - Generic decoding failed"));
  const std::uint8_t* bytes = nullptr;
  std::uint64_t length = 0;
  der.GetData(bytes, length);
  EXPECT_EQ(bytes, nullptr);
  EXPECT_EQ(length, 5U);
}

}  // namespace
}  // namespace qixx::testing
