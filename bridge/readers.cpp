#include "bridge/readers.h"

#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <ctime>

#include "runtime/trace.h"

namespace qixx::bridge {
namespace {

// The interface of PC/SC as the pcsc-lite project publishes it for this platform, where both of its
// number types are one machine word.
using PcscResult = long;
using PcscWord = unsigned long;

struct ReaderQuery {
  const char* name;
  void* userData;
  PcscWord knownState;
  PcscWord state;
  PcscWord answerLength;
  unsigned char answerToReset[33];
};

constexpr std::uint32_t kSuccess = 0;
constexpr std::uint32_t kInsufficientBuffer = 0x80100008;
constexpr std::uint32_t kUnknownReader = 0x80100009;
constexpr std::uint32_t kNoReaders = 0x8010002E;

constexpr PcscWord kScopeSystem = 2;
constexpr PcscWord kStatePresent = 0x20;
constexpr unsigned kChangesShift = 16;

/// More readers than PC/SC knows, and more than any desktop has.
constexpr std::size_t kMaxReaders = 64;
constexpr std::size_t kMaxNames = std::size_t{64} * 1024;
constexpr std::size_t kNamesAtFirst = 2048;

/// Between two tries to connect, in milliseconds. Each may start the service, and one that fails
/// again and again is given up by who starts it; one that refuses writes that down each time.
constexpr std::int64_t kConnectPause = 3000;

struct Pcsc {
  PcscResult (*establish)(PcscWord scope, const void*, const void*, long* context) = nullptr;
  PcscResult (*release)(long context) = nullptr;
  PcscResult (*list)(long context, const char* groups, char* names, PcscWord* size) = nullptr;
  PcscResult (*state)(long context, PcscWord timeout, ReaderQuery* readers, PcscWord) = nullptr;

  [[nodiscard]] bool IsComplete() const {
    return establish != nullptr && release != nullptr && list != nullptr && state != nullptr;
  }
};

Pcsc LoadPcsc() {
  void* const library = ::dlopen("libpcsclite.so.1", RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) return {};
  const auto entry = [library](const char* name) { return ::dlsym(library, name); };
  return {reinterpret_cast<decltype(Pcsc::establish)>(entry("SCardEstablishContext")),
          reinterpret_cast<decltype(Pcsc::release)>(entry("SCardReleaseContext")),
          reinterpret_cast<decltype(Pcsc::list)>(entry("SCardListReaders")),
          reinterpret_cast<decltype(Pcsc::state)>(entry("SCardGetStatusChange"))};
}

/// Loaded once and never given back.
const Pcsc& Library() {
  static const Pcsc library = LoadPcsc();
  return library;
}

/// The part of a reader's name that a slot description has room for.
std::string_view CutName(std::string_view name) {
  name = name.substr(0, sizeof CK_SLOT_INFO::slotDescription);
  return name.substr(0, name.find_last_not_of(' ') + 1);
}

/// The codes have 32 bits, whatever the sign that a machine word gives them.
std::uint32_t CodeOf(PcscResult result) {
  return static_cast<std::uint32_t>(result);
}

}  // namespace

std::int64_t Milliseconds() {
  timespec time = {};
  ::clock_gettime(CLOCK_MONOTONIC, &time);
  return std::int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1'000'000;
}

std::string_view DescriptionText(const CK_SLOT_INFO& info) {
  const std::string_view text(reinterpret_cast<const char*>(info.slotDescription),
                              sizeof info.slotDescription);
  return CutName(text.substr(0, std::min(text.find('\0'), text.size())));
}

bool Readers::Look() {
  const bool wasConnected = connected_;
  if (!Connect() || !ReadNames()) names_.assign(1, '\0');
  bool changed = wasConnected != connected_;
  if (names_ != current_) {
    changed = true;
    TakeNames();
  }
  if (!readers_.empty() && !ReadStates()) {
    // A reader went between the two questions. The next look sees which.
    current_.clear();
  }
  return changed;
}

void Readers::Close() {
  if (connected_) Library().release(context_);
  connected_ = false;
}

void Readers::Forget() {
  connected_ = false;
  connectAfter_ = 0;
}

bool Readers::Connect() {
  if (connected_) return true;
  if (!Library().IsComplete() || Milliseconds() < connectAfter_) return false;
  connectAfter_ = Milliseconds() + kConnectPause;
  connected_ = CodeOf(Library().establish(kScopeSystem, nullptr, nullptr, &context_)) == kSuccess;
  return connected_;
}

bool Readers::ReadNames() {
  names_.resize(std::max(names_.capacity(), kNamesAtFirst));
  for (;;) {
    PcscWord size = names_.size();
    const std::uint32_t code = CodeOf(Library().list(context_, nullptr, names_.data(), &size));
    if (code == kInsufficientBuffer && size > names_.size() && size <= kMaxNames) {
      names_.resize(size);
      continue;
    }
    if (code != kSuccess && code != kNoReaders) Close();  // the service is away or another one
    if (code != kSuccess || size < 2 || size > names_.size()) return false;
    names_.resize(size);
    // Two zero bytes end the list, also that of a service that does not write them.
    names_[size - 2] = names_[size - 1] = '\0';
    return true;
  }
}

/// A reader that stays keeps its state, for when the next question fails.
void Readers::TakeNames() {
  std::vector<Reader> readers;
  for (const char* name = names_.data(); *name != '\0' && readers.size() < kMaxReaders;) {
    const std::string_view whole(name);
    const Reader* const known = Find(CutName(whole));
    readers.push_back({std::string(CutName(whole)), known == nullptr ? State{} : known->state});
    name += whole.size() + 1;
  }
  current_ = names_;
  readers_.swap(readers);
}

bool Readers::ReadStates() {
  std::array<ReaderQuery, kMaxReaders> queries{};
  const char* name = current_.data();
  for (std::size_t i = 0; i < readers_.size(); ++i) {
    queries[i].name = name;
    name += std::string_view(name).size() + 1;
  }
  // No state is said to be known, so the answer is there at once.
  const std::uint32_t code = CodeOf(Library().state(context_, 0, queries.data(), readers_.size()));
  if (code != kSuccess) {
    if (code != kUnknownReader) Close();
    return false;
  }
  for (std::size_t i = 0; i < readers_.size(); ++i) {
    const PcscWord state = queries[i].state;
    readers_[i].state = {(state & kStatePresent) != 0,
                         static_cast<std::uint32_t>(state >> kChangesShift) & 0xFFFF};
  }
  return true;
}

std::size_t Readers::Count(std::string_view name) const {
  return static_cast<std::size_t>(
      std::count_if(readers_.begin(), readers_.end(),
                    [name](const Reader& reader) { return reader.name == name; }));
}

const Readers::Reader* Readers::Find(std::string_view name) const {
  if (Count(name) != 1) return nullptr;
  return &*std::find_if(readers_.begin(), readers_.end(),
                        [name](const Reader& reader) { return reader.name == name; });
}

}  // namespace qixx::bridge
