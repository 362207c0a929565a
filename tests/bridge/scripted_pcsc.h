// A PC/SC library for the bridge in the same process, with one reader and a service that does what
// the test says. A program that links it has it under the name by which the bridge loads its own.
#pragma once

#include <atomic>
#include <string_view>

namespace qixx::testing {

struct ScriptedPcsc {
  std::atomic<bool> hasReader = true;
  std::atomic<bool> hasCard = false;
  std::atomic<unsigned> changes = 0;      ///< of the reader, as its service counts them
  std::atomic<unsigned> lists = 0;        ///< how often the readers were asked for
  std::atomic<unsigned> emptyLists = 0;   ///< how often there was none
  std::atomic<bool> isListEmpty = false;  ///< the next question for the readers finds none
  std::atomic<bool> isListLost = false;   ///< the next question for the readers fails
  std::atomic<bool> isStateLost = false;  ///< the next question for their states does
  std::atomic<bool> isCancelled = false;  ///< the wait for a change, or the next one

  static constexpr std::string_view kReader = "Scripted reader 00 00";
};

ScriptedPcsc& ThePcsc();

}  // namespace qixx::testing
