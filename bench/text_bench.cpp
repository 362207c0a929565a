// The codecs over 1 MiB, beside one memcpy of their input and output.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "runtime/spare_text.h"
#include "runtime/text.h"

namespace qixx::bench {
namespace {

constexpr std::size_t kMebibyte = 1024 * 1024;

std::vector<std::uint8_t> Data() {
  std::vector<std::uint8_t> data(kMebibyte);
  std::uint32_t value = 1;
  for (std::uint8_t& byte : data) {
    value = value * 1664525 + 1013904223;
    byte = static_cast<std::uint8_t>(value >> 24);
  }
  return data;
}

/// One pass over as many bytes as a codec reads and writes; `range` is their sum in KiB.
void CopyPass(benchmark::State& state) {
  const std::vector<char> from(static_cast<std::size_t>(state.range(0)) * 1024 / 2, 'x');
  std::vector<char> to(from.size());
  for (auto _ : state) {
    std::memcpy(to.data(), from.data(), from.size());
    benchmark::DoNotOptimize(to.data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(CopyPass)->Name("CodecBareHex")->Arg(3072);
BENCHMARK(CopyPass)->Name("CodecBareBase64")->Arg(2390);

void HexEncodeMebibyte(benchmark::State& state) {
  const std::vector<std::uint8_t> data = Data();
  for (auto _ : state) benchmark::DoNotOptimize(runtime::HexEncode(data));
}
BENCHMARK(HexEncodeMebibyte);

void HexDecodeMebibyte(benchmark::State& state) {
  const std::string text = runtime::HexEncode(Data());
  for (auto _ : state) benchmark::DoNotOptimize(runtime::HexDecode(text));
}
BENCHMARK(HexDecodeMebibyte);

void Base64EncodeMebibyte(benchmark::State& state) {
  const std::vector<std::uint8_t> data = Data();
  for (auto _ : state) benchmark::DoNotOptimize(runtime::Base64Encode(data));
}
BENCHMARK(Base64EncodeMebibyte);

void Base64DecodeMebibyte(benchmark::State& state) {
  const std::string text = runtime::Base64Encode(Data());
  for (auto _ : state) benchmark::DoNotOptimize(runtime::Base64Decode(text));
}
BENCHMARK(Base64DecodeMebibyte);

}  // namespace
}  // namespace qixx::bench
