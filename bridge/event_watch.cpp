#include "bridge/event_watch.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <optional>
#include <utility>

#include "pkcs11/entry.h"
#include "runtime/clock.h"
#include "runtime/text.h"

namespace qixx::bridge {
namespace {

/// Between two tries to reach the service, in milliseconds: as far apart as those of the poll.
constexpr int kConnectPause = 3000;
/// After a wake-up without news, in milliseconds. A card that is read causes some; a library that
/// does not wait would keep the thread busy.
constexpr int kQuietPause = 50;
/// The same where no wait is to be had, as with a service that knows no notifier: readers that have
/// not changed are unknown to it again and again.
constexpr int kUnknownPause = 1000;
/// Between two tries to cancel a wait that may not have begun yet.
constexpr timespec kCancelPause = {0, 2'000'000};

constexpr PcscWord kStateChanged = 0x2;

std::vector<std::string_view> NamesIn(std::string_view list) {
  std::vector<std::string_view> names;
  while (!list.empty() && list.front() != '\0') {
    names.push_back(runtime::UpToZero(list));
    list.remove_prefix(names.back().size() + 1);
  }
  return names;
}

bool HasSameCard(PcscWord one, PcscWord other) {
  const PcscWord differing = one ^ other;
  return (differing & kPcscStatePresent) == 0 && differing >> kPcscCountShift == 0;
}

/// The thread takes no signals: they are for the threads of the program.
void BlockSignals() {
  sigset_t all;
  ::sigfillset(&all);
  ::sigprocmask(SIG_SETMASK, &all, nullptr);  // on Linux it acts on the calling thread
}

}  // namespace

// --- the descriptor -----------------------------------------------------------------------------

EventDescriptor::EventDescriptor() {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return;
  reading_ = runtime::Descriptor(ends[0]);
  writing_ = runtime::Descriptor(ends[1]);
  made_ = runtime::StatusOf(reading_);
}

bool EventDescriptor::IsOurs() const {
  return runtime::IsStill(made_, reading_.Get()) && runtime::IsStill(made_, writing_.Get());
}

void EventDescriptor::Raise() {
  if (!IsOurs()) return;
  [[maybe_unused]] const ssize_t written = ::write(writing_.Get(), "", 1);
}

bool EventDescriptor::Lower() {
  if (!IsOurs()) return true;
  std::array<char, 64> bytes;
  ssize_t got = 0;
  bool wasReadable = false;
  while ((got = ::read(Get(), bytes.data(), bytes.size())) > 0) wasReadable = true;
  return wasReadable || got == 0 || errno != EAGAIN;
}

void EventDescriptor::Close() {
  reading_.Close();
  writing_.Close();
}

void EventDescriptor::Wait(int timeout) const {
  pollfd waited = {IsOurs() ? Get() : -1, POLLIN, 0};
  ::poll(&waited, 1, timeout);
}

// --- the life of the thread ---------------------------------------------------------------------

void EventWatch::Start(const ReaderFilter& filter) {
  if (!hasEnded_ || !HasPcsc()) return;
  filter_ = filter;
  hasEnded_ = false;
  if (runtime::ThreadCreate(&EventWatch::RunThread, this) == 0) hasEnded_ = true;
}

void EventWatch::Stop() {
  isStopping_ = true;
  stop_.Raise();
  while (!hasEnded_.load(std::memory_order_acquire)) {
    {
      const runtime::CriticalScope hold(&guard_);
      if (connection_.IsOpen()) connection_.Cancel();
    }
    ::nanosleep(&kCancelPause, nullptr);
  }
  isStopping_ = false;
  stop_.Lower();
  event_.Lower();
}

void EventWatch::Abandon() {
  event_.Close();
  stop_.Close();
}

void* EventWatch::RunThread(void* watch) {
  auto& self = *static_cast<EventWatch*>(watch);
  BlockSignals();
  runtime::ThreadDetachSelf();
  while (!self.isStopping_) {
    // What it throws ends the round, and the next one begins anew.
    (void)pkcs11::AnswerOf([&self]() -> CK_RV {
      self.Run();
      return CKR_OK;
    });
    self.tellsAll_ = false;
    if (self.connection_.IsOpen()) self.event_.Raise();  // the readers went with the service
    self.Disconnect();
    if (!self.isStopping_) self.stop_.Wait(kConnectPause);
  }
  self.hasEnded_.store(true, std::memory_order_release);
  return nullptr;
}

// --- the thread ---------------------------------------------------------------------------------

/// Waits until the connection is lost or the thread is to stop.
void EventWatch::Run() {
  if (!Connect()) return;
  while (!isStopping_ && WaitForChange()) {
  }
}

/// What another service says is news, even when it says the same.
bool EventWatch::Connect() {
  current_.clear();
  known_.clear();
  const runtime::CriticalScope hold(&guard_);
  return connection_.Open();
}

void EventWatch::Disconnect() {
  const runtime::CriticalScope hold(&guard_);
  connection_.Close();
}

/// Waits for one change. False when the connection is of no more use.
bool EventWatch::WaitForChange() {
  const std::optional<std::string_view> names = connection_.ReadNames();
  if (!names) return false;
  const bool isNewList = *names != current_;
  if (isNewList) {
    NoteGone(*names);
    current_ = *names;
    event_.Raise();
  }
  std::array<PcscReaderState, kMaxReaders> states{};
  std::size_t readers = 0;
  for (const char* name = current_.data(); *name != '\0' && readers < states.size();) {
    const std::string_view whole(name);
    states[readers++] = {.name = name, .knownState = KnownState(whole)};
    name += whole.size() + 1;
  }
  const bool knowsAll =
      std::ranges::all_of(std::span(states).first(readers),
                          [](const PcscReaderState& reader) { return reader.knownState != 0; });
  std::size_t waited = readers;
  if (waited < states.size()) {
    states[waited++] = {.name = kPcscReaderNotifier, .knownState = readers << kPcscCountShift};
  }
  const bool tellsAll = knowsAll && waited > readers;
  if (tellsAll_.exchange(tellsAll) != tellsAll) event_.Raise();
  const std::int64_t began = runtime::MonotonicMilliseconds();
  const PcscResult result = connection_.WaitForChange(kPcscInfinite, {states.data(), waited});
  // One that waited is no service without a wait.
  const bool wasShort = runtime::MonotonicMilliseconds() - began < kQuietPause;
  const bool isUnknown = result == PcscResult::kUnknownReader && wasShort;
  const bool isUnknownAgain = std::exchange(wasUnknown_, isUnknown) && isUnknown && !isNewList;
  if (result == PcscResult::kSuccess && TakeStates({states.data(), readers})) {
    event_.Raise();
    return true;
  }
  stop_.Wait(isUnknownAgain ? kUnknownPause : kQuietPause);
  return result == PcscResult::kSuccess || result == PcscResult::kTimeout ||
         result == PcscResult::kUnknownReader;
}

void EventWatch::NoteGone(std::string_view names) {
  const std::vector<std::string_view> listed = NamesIn(names);
  const runtime::CriticalScope hold(&goneGuard_);
  for (const std::string_view name : NamesIn(current_)) {
    const bool isNoted = std::ranges::find(gone_, name) != gone_.end();
    if (!isNoted && std::ranges::find(listed, name) == listed.end()) gone_.emplace_back(name);
  }
}

std::vector<std::string> EventWatch::TakeGone() {
  const runtime::CriticalScope hold(&goneGuard_);
  return std::exchange(gone_, {});
}

/// True when a card came or went.
bool EventWatch::TakeStates(std::span<const PcscReaderState> states) {
  std::vector<Known> known;
  bool isNews = false;
  for (const PcscReaderState& reader : states) {
    isNews = isNews || (!HasSameCard(reader.state, KnownState(reader.name)) &&
                        filter_.MayCount(std::string(CutReaderName(reader.name))));
    known.push_back({reader.name, reader.state & ~kStateChanged});
  }
  known_.swap(known);
  return isNews;
}

PcscWord EventWatch::KnownState(std::string_view name) const {
  const auto known = std::ranges::find(known_, name, &Known::name);
  return known == known_.end() ? 0 : known->state;
}

}  // namespace qixx::bridge
