// A PC/SC library for the bridge in the same process, with two readers and a service that does what
// the test says. A program that links it has it under the name by which the bridge loads its own.
#pragma once

#include <array>
#include <atomic>
#include <string_view>

namespace qixx::testing {

struct ScriptedPcsc {
  static constexpr std::array<std::string_view, 2> kReaders = {"Scripted reader 00 00",
                                                               "Scripted reader 00 01"};

  std::array<std::atomic<bool>, 2> hasCard = {};
  std::array<std::atomic<unsigned>, 2> changes = {};  ///< as the service counts them
  std::atomic<bool> hasReaders = true;
  std::atomic<unsigned> emptyLists = 0;   ///< how often there was no reader
  std::atomic<bool> isListEmpty = false;  ///< the next question for the readers finds none
  std::atomic<bool> isStateLost = false;  ///< the next question for their states fails, no wait
  std::atomic<bool> isCancelled = false;  ///< the wait for a change
};

ScriptedPcsc& ThePcsc();

}  // namespace qixx::testing
