// Runs a fuzz target over the files of its corpus folder, for compilers without libFuzzer.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

#include "fuzz/fuzz.h"

int main(int argc, char** argv) {
  std::size_t count = 0;
  for (int number = 1; number < argc; ++number) {
    std::error_code failure;
    for (const auto& file : std::filesystem::directory_iterator(argv[number], failure)) {
      std::ifstream stream(file.path(), std::ios::binary);
      const std::vector<char> content{std::istreambuf_iterator<char>(stream), {}};
      // An array of exactly this size, so that a sanitizer sees the first byte read behind it.
      const auto data = std::make_unique<std::uint8_t[]>(content.size());
      std::copy(content.begin(), content.end(), data.get());
      LLVMFuzzerTestOneInput(data.get(), content.size());
      ++count;
    }
  }
  std::printf("%zu inputs\n", count);
  return count == 0 ? 1 : 0;
}
