// Collects the trace lines written while it lives, without their headers and line ends.
#pragma once

#include <algorithm>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include "runtime/spare_trace.h"
#include "runtime/trace.h"

namespace qixx::testing {

class TraceCapture {
 public:
  // Not under the guard, which Keep takes while the trace has its own lock.
  TraceCapture() { runtime::TraceSetCallback(&TraceCapture::Keep); }
  ~TraceCapture() {
    runtime::TraceSetCallback(nullptr);
    const std::lock_guard hold(guard);
    kept.clear();
  }
  TraceCapture(const TraceCapture&) = delete;

  [[nodiscard]] std::vector<std::string> Lines() const {
    const std::lock_guard hold(guard);
    return kept;
  }
  [[nodiscard]] bool Has(const std::string& line) const { return Count(line) != 0; }
  [[nodiscard]] std::size_t Count(const std::string& line) const {
    return static_cast<std::size_t>(std::ranges::count(Lines(), line));
  }

 private:
  static void Keep(const char* line, std::size_t length) {
    const std::lock_guard hold(guard);
    kept.emplace_back(line, length);
    if (kept.back().ends_with('\n')) kept.back().pop_back();
  }

  static inline std::mutex guard;
  static inline std::vector<std::string> kept;
};

}  // namespace qixx::testing
