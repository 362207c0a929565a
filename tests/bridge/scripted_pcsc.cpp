#include "tests/bridge/scripted_pcsc.h"

#include <algorithm>
#include <chrono>
#include <span>
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

constexpr long kSuccess = 0;
constexpr long kCancelled = 0x80100002;
constexpr long kUnknownReader = 0x80100009;
constexpr long kNoService = 0x8010001D;
constexpr long kNoReaders = 0x8010002E;
constexpr PcscWord kChanged = 0x2;
constexpr PcscWord kEmpty = 0x10;

}  // namespace

extern "C" {

long SCardEstablishContext(PcscWord /*scope*/, const void* /*one*/, const void* /*two*/,
                           long* context) {
  *context = 1;
  return kSuccess;
}

long SCardReleaseContext(long /*context*/) {
  return kSuccess;
}

long SCardCancel(long /*context*/) {
  ThePcsc().isCancelled = true;
  return kSuccess;
}

long SCardListReaders(long /*context*/, const char* /*groups*/, char* names, PcscWord* size) {
  if (ThePcsc().isListLost.exchange(false)) return kNoService;
  ++ThePcsc().lists;
  if (ThePcsc().isListEmpty.exchange(false) || !ThePcsc().hasReader) {
    ++ThePcsc().emptyLists;
    return kNoReaders;
  }
  *size = ScriptedPcsc::kReader.size() + 2;
  std::fill_n(names, *size, '\0');
  std::ranges::copy(ScriptedPcsc::kReader, names);
  return kSuccess;
}

long SCardGetStatusChange(long /*context*/, PcscWord timeout, PcscReaderState* states,
                          PcscWord count) {
  ScriptedPcsc& pcsc = ThePcsc();
  for (bool differs = timeout == 0;;) {
    if (pcsc.isStateLost.exchange(false)) return kNoService;
    if (!pcsc.hasReader && states->name == ScriptedPcsc::kReader) return kUnknownReader;
    for (PcscReaderState& state : std::span(states, count)) {
      const bool isReader = state.name == ScriptedPcsc::kReader;  // else the notifier of readers
      const PcscWord card = pcsc.hasCard ? bridge::kPcscStatePresent : kEmpty;
      const PcscWord changes = isReader ? pcsc.changes.load() : PcscWord{pcsc.hasReader};
      state.state = changes << bridge::kPcscCountShift | (isReader ? card : 0);
      differs = differs || ((state.state ^ state.knownState) & ~kChanged) != 0;
    }
    if (differs) return kSuccess;
    if (pcsc.isCancelled.exchange(false)) return kCancelled;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

}  // extern "C"

}  // namespace qixx::testing
