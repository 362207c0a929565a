// What the fuzz targets share: the entry point's name and a reader of structured input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace qixx::fuzzing {

/// Ends the run, and says which of the requirements is not met.
inline void Require(bool holds, const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
  if (holds) return;
  std::fprintf(stderr, "%s:%d: not as required\n", file, line);
  std::abort();
}

/// Takes an input apart: bytes that choose, and texts that end at a line end.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size)
      : rest_(reinterpret_cast<const char*>(data), size) {}

  /// 0 when nothing is left.
  std::uint8_t Byte() {
    if (rest_.empty()) return 0;
    const auto byte = static_cast<std::uint8_t>(rest_.front());
    rest_.remove_prefix(1);
    return byte;
  }
  std::string Line() {
    const std::size_t end = rest_.find('\n');
    std::string line(rest_.substr(0, end));
    rest_.remove_prefix(end == std::string_view::npos ? rest_.size() : end + 1);
    return line;
  }
  [[nodiscard]] std::string Rest() const { return std::string(rest_); }
  [[nodiscard]] std::span<const std::uint8_t> RestBytes() const {
    return {reinterpret_cast<const std::uint8_t*>(rest_.data()), rest_.size()};
  }

 private:
  std::string_view rest_;
};

}  // namespace qixx::fuzzing
