// A PC/SC library for the bridge in the same process, with one reader and a service that does what
// the test says. A program that links it has it under the name by which the bridge loads its own.
#pragma once

namespace qixx::testing {

struct ScriptedPcsc {
  bool hasReader = true;
  bool hasCard = false;
  unsigned changes = 0;           ///< of the reader, as its service counts them
  bool isListLost = false;        ///< the next question for the readers finds the service gone
  bool isStateLost = false;       ///< the next question for their states does
  unsigned long connections = 0;  ///< made so far; only the last one is served

  static constexpr const char* kReader = "Scripted reader 00 00";
};

/// Not for several threads at a time.
ScriptedPcsc& ThePcsc();

}  // namespace qixx::testing
