// A PC/SC library for the bridge in the same process, with a reader and a service that does what
// the test says. A program that links it has it under the name by which the bridge loads its own.
#pragma once

#include <atomic>
#include <string_view>

namespace qixx::testing {

struct ScriptedPcsc {
  static constexpr std::string_view kReader = "Scripted reader 00 00";

  std::atomic<bool> hasReader = true;
  std::atomic<bool> hasCard = false;
  std::atomic<unsigned> changes = 1;      ///< as the service counts them
  std::atomic<bool> isStateLost = false;  ///< the next question for the state fails, no wait
  std::atomic<bool> isCancelled = false;  ///< the wait for a change
};

ScriptedPcsc& ThePcsc();

}  // namespace qixx::testing
