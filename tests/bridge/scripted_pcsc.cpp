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

constexpr long kCancelled = 0x80100002;
constexpr long kUnknownReader = 0x80100009;
constexpr long kNoService = 0x8010001D;
constexpr long kNoReaders = 0x8010002E;
constexpr PcscWord kChanged = 0x2;
constexpr PcscWord kEmpty = 0x10;

/// What is not one of the readers is the notifier, which counts them.
PcscWord StateOf(std::string_view name) {
  const auto reader = std::ranges::find(ScriptedPcsc::kReaders, name);
  if (reader == ScriptedPcsc::kReaders.end()) {
    return (ThePcsc().hasReaders ? ScriptedPcsc::kReaders.size() : 0) << bridge::kPcscCountShift;
  }
  const auto place = static_cast<std::size_t>(reader - ScriptedPcsc::kReaders.begin());
  return PcscWord{ThePcsc().changes[place]} << bridge::kPcscCountShift |
         (ThePcsc().hasCard[place] ? bridge::kPcscStatePresent : kEmpty);
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
  if (ThePcsc().isListEmpty.exchange(false) || !ThePcsc().hasReaders) {
    ++ThePcsc().emptyLists;
    return kNoReaders;
  }
  char* end = names;
  for (const std::string_view reader : ScriptedPcsc::kReaders) {
    end = std::ranges::copy(reader, end).out;
    *end++ = '\0';
  }
  *end++ = '\0';
  *size = static_cast<PcscWord>(end - names);
  return 0;
}

long SCardGetStatusChange(long /*context*/, PcscWord timeout, PcscReaderState* states,
                          PcscWord count) {
  ScriptedPcsc& pcsc = ThePcsc();
  if (timeout == 0 && pcsc.isStateLost.exchange(false)) return kNoService;
  if (timeout != 0) pcsc.isCancelled = false;  // one that came before the wait is lost
  for (bool differs = timeout == 0;;) {
    if (!pcsc.hasReaders && states->name == ScriptedPcsc::kReaders[0]) return kUnknownReader;
    for (PcscReaderState& state : std::span(states, count)) {
      state.state = StateOf(state.name);
      differs = differs || ((state.state ^ state.knownState) & ~kChanged) != 0;
    }
    if (differs) return 0;
    if (pcsc.isCancelled.exchange(false)) return kCancelled;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

}  // extern "C"

}  // namespace qixx::testing
