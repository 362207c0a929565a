// Collects the trace lines written while it lives, without their headers and line ends.
#pragma once

#include <algorithm>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include "runtime/trace.h"

namespace qixx::testing {

class TraceCapture {
 public:
  TraceCapture() {
    Clear();
    TraceSetCallback(&TraceCapture::Keep);
  }
  ~TraceCapture() { TraceSetCallback(nullptr); }
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  [[nodiscard]] std::vector<std::string> Lines() const {
    const std::lock_guard<std::mutex> hold(Guard());
    return Kept();
  }
  [[nodiscard]] bool Has(const std::string& line) const { return Count(line) != 0; }
  [[nodiscard]] std::size_t Count(const std::string& line) const {
    const std::vector<std::string> lines = Lines();
    return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), line));
  }
  void Clear() {
    const std::lock_guard<std::mutex> hold(Guard());
    Kept().clear();
  }

 private:
  static std::mutex& Guard() {
    static std::mutex guard;
    return guard;
  }
  static std::vector<std::string>& Kept() {
    static std::vector<std::string> kept;
    return kept;
  }
  static void Keep(const char* line, std::size_t length) {
    const std::lock_guard<std::mutex> hold(Guard());
    std::string text(line, length);
    if (!text.empty() && text.back() == '\n') text.pop_back();
    Kept().push_back(text);
  }
};

}  // namespace qixx::testing
