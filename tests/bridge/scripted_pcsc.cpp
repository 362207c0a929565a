#include "tests/bridge/scripted_pcsc.h"

#include <algorithm>
#include <span>
#include <string_view>
#include <utility>

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
constexpr long kNoService = 0x8010001D;
constexpr long kNoReaders = 0x8010002E;
constexpr long kUnknownReader = 0x80100009;
constexpr PcscWord kEmpty = 0x10;

/// Whether the connection is lost, with this question or with one before.
bool IsLost(long context, bool& isLostNow) {
  ScriptedPcsc& pcsc = ThePcsc();
  if (std::exchange(isLostNow, false)) ++pcsc.connections;
  return static_cast<unsigned long>(context) != pcsc.connections;
}

}  // namespace

extern "C" {

long SCardEstablishContext(PcscWord /*scope*/, const void* /*one*/, const void* /*two*/,
                           long* context) {
  *context = static_cast<long>(++ThePcsc().connections);
  return kSuccess;
}

long SCardReleaseContext(long /*context*/) {
  return kSuccess;
}

long SCardCancel(long /*context*/) {
  return kSuccess;
}

long SCardListReaders(long context, const char* /*groups*/, char* names, PcscWord* size) {
  if (IsLost(context, ThePcsc().isListLost)) return kNoService;
  if (!ThePcsc().hasReader) return kNoReaders;
  const std::string_view name = ScriptedPcsc::kReader;
  std::ranges::copy(name, names);
  std::fill_n(names + name.size(), 2, '\0');
  *size = name.size() + 2;
  return kSuccess;
}

long SCardGetStatusChange(long context, PcscWord /*timeout*/, PcscReaderState* states,
                          PcscWord count) {
  const ScriptedPcsc& pcsc = ThePcsc();
  if (IsLost(context, ThePcsc().isStateLost)) return kNoService;
  if (!pcsc.hasReader) return kUnknownReader;
  for (PcscReaderState& state : std::span(states, count)) {
    const PcscWord card = pcsc.hasCard ? bridge::kPcscStatePresent : kEmpty;
    state.state = PcscWord{pcsc.changes} << bridge::kPcscCountShift | card;
  }
  return kSuccess;
}

}  // extern "C"

}  // namespace qixx::testing
