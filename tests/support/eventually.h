// Waiting for a state instead of a time.
#pragma once

#include <chrono>
#include <thread>

namespace qixx::testing {

/// Polls until `condition` holds; false when it does not within a generous limit.
template <typename Condition>
[[nodiscard]] bool Eventually(Condition condition,
                              std::chrono::seconds limit = std::chrono::seconds(15)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

}  // namespace qixx::testing
