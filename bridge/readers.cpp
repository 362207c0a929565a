#include "bridge/readers.h"

#include <algorithm>
#include <array>
#include <optional>

#include "runtime/clock.h"
#include "runtime/text.h"

namespace qixx::bridge {
namespace {

/// Between two tries to connect, in milliseconds. Each may start the service, and one that fails
/// again and again is given up by who starts it; a service that refuses logs each refusal.
constexpr std::int64_t kConnectPause = 3000;

}  // namespace

std::string_view DescriptionText(const CK_SLOT_INFO& info) {
  return CutReaderName(runtime::UpToZero(runtime::AsText(info.slotDescription)));
}

bool Readers::Poll() {
  const bool wasConnected = connection_.IsOpen();
  std::string_view names = kNoNames;
  if (Connect()) {
    const std::optional<std::string_view> listed = connection_.ReadNames();
    if (!listed) connection_.Close();
    names = listed.value_or(kNoNames);
  }
  bool changed = wasConnected != connection_.IsOpen();
  if (names != current_) {
    changed = true;
    TakeNames(names);
  }
  if (!readers_.empty() && !ReadStates()) {
    // A reader went between the two questions. The next poll sees which.
    current_.clear();
  }
  return changed;
}

void Readers::Forget(std::string_view wholeName) {
  const std::string_view cut = CutReaderName(wholeName);
  const auto isForgotten = [cut](const Reader& reader) { return reader.name == cut; };
  if (std::erase_if(readers_, isForgotten) != 0) current_.clear();
}

void Readers::Close() {
  connection_.Close();
  connectAfter_ = 0;
}

void Readers::Abandon() {
  connection_.Abandon();
  connectAfter_ = 0;
}

bool Readers::Connect() {
  if (connection_.IsOpen()) return true;
  if (runtime::MonotonicMilliseconds() < connectAfter_) return false;
  connectAfter_ = runtime::MonotonicMilliseconds() + kConnectPause;
  if (!connection_.Open()) return false;
  // Nobody knows what happened between two connections, and a service that restarted counts anew.
  current_.clear();
  readers_.clear();
  return true;
}

/// A reader that stays keeps its state, for when the next question fails. One that was away may
/// have another card, even when its counter is the same.
void Readers::TakeNames(std::string_view names) {
  std::vector<Reader> readers;
  for (std::string_view rest = names; !rest.starts_with('\0') && readers.size() < kMaxReaders;) {
    const std::string_view whole = runtime::UpToZero(rest);
    const std::string_view cut = CutReaderName(whole);
    const Reader* const known = Find(cut);
    readers.push_back(known != nullptr ? *known : Reader{std::string(cut), ++arrivals_, {}});
    rest.remove_prefix(whole.size() + 1);
  }
  current_ = names;
  readers_.swap(readers);
}

bool Readers::ReadStates() {
  std::array<PcscReaderState, kMaxReaders> states{};
  const char* name = current_.data();
  for (std::size_t i = 0; i < readers_.size(); ++i) {
    states[i].name = name;
    name += std::string_view(name).size() + 1;
  }
  // No state is said to be known, so the answer is there at once.
  const PcscResult result = connection_.WaitForChange(0, {states.data(), readers_.size()});
  if (result != PcscResult::kSuccess) {
    if (result != PcscResult::kUnknownReader) connection_.Close();
    return false;
  }
  for (std::size_t i = 0; i < readers_.size(); ++i) {
    const PcscWord state = states[i].state;
    readers_[i].state = {
        (state & kPcscStatePresent) != 0,
        readers_[i].arrival << kPcscCountShift | ((state >> kPcscCountShift) & 0xFFFF)};
  }
  return true;
}

std::size_t Readers::Count(std::string_view name) const {
  return static_cast<std::size_t>(std::ranges::count(readers_, name, &Reader::name));
}

const Readers::Reader* Readers::Find(std::string_view name) const {
  if (Count(name) != 1) return nullptr;
  return &*std::ranges::find(readers_, name, &Reader::name);
}

}  // namespace qixx::bridge
