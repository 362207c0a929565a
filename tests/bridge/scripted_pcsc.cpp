#include "tests/bridge/scripted_pcsc.h"

#include <chrono>
#include <span>
#include <string>
#include <thread>

#include "bridge/pcsc.h"

namespace qixx::testing {

ScriptedPcsc& ThePcsc() {
  static ScriptedPcsc pcsc;
  return pcsc;
}

namespace {

using bridge::PcscReaderState;
using bridge::PcscWord;

constexpr long kUnknownReader = 0x80100009;
constexpr long kNoService = 0x8010001D;
constexpr long kNoReaders = 0x8010002E;

/// What is not the reader is the notifier, which counts the readers.
PcscWord StateOf(std::string_view name) {
  const ScriptedPcsc& pcsc = ThePcsc();
  if (name != ScriptedPcsc::kReader) return PcscWord{pcsc.hasReader} << bridge::kPcscCountShift;
  return PcscWord{pcsc.changes} << bridge::kPcscCountShift |
         (pcsc.hasCard ? bridge::kPcscStatePresent : 0);
}

}  // namespace

extern "C" {

long SCardEstablishContext(PcscWord /*scope*/, const void* /*one*/, const void* /*two*/,
                           long* context) {
  *context = 1;
  return 0;
}

long SCardReleaseContext(long /*context*/) {
  return 0;
}

long SCardCancel(long /*context*/) {
  ThePcsc().isCancelled = true;
  return 0;
}

long SCardListReaders(long /*context*/, const char* /*groups*/, char* names, PcscWord* size) {
  if (!ThePcsc().hasReader) return kNoReaders;
  const std::string list = std::string(ScriptedPcsc::kReader) + '\0';
  *size = list.copy(names, *size) + 1;
  names[list.size()] = '\0';
  return 0;
}

long SCardGetStatusChange(long /*context*/, PcscWord timeout, PcscReaderState* states,
                          PcscWord count) {
  ScriptedPcsc& pcsc = ThePcsc();
  if (timeout == 0 && pcsc.isStateLost.exchange(false)) return kNoService;
  if (timeout != 0) pcsc.isCancelled = false;  // one that came before the wait is lost
  for (bool differs = timeout == 0;;) {
    if (!pcsc.hasReader && states->name == ScriptedPcsc::kReader) return kUnknownReader;
    for (PcscReaderState& state : std::span(states, count)) {
      state.state = StateOf(state.name);
      differs = differs || state.state != state.knownState;
    }
    if (differs) return 0;
    if (pcsc.isCancelled.exchange(false)) return kNoService;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

}  // extern "C"

}  // namespace qixx::testing
