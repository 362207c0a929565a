// A descriptor that is readable when a poll for events would have something to tell, and the
// thread that makes it so.
//
// The thread waits in PC/SC with a connection of its own, and wakes up when a reader's card, or the
// list of readers, changes; while there is no PC/SC service it tries to reach one every three
// seconds. What a module tells of slots that are no PC/SC readers it does not know: no module says
// of itself that it can wait for events in one thread while it serves another.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "bridge/pcsc.h"
#include "bridge/reader_filter.h"
#include "runtime/descriptor.h"
#include "runtime/sync.h"

namespace qixx::bridge {

/// A descriptor that is readable from Raise to Lower. Both may be called from any thread and do
/// not block. One that something else in the process closed is touched no more: another file may
/// have its number.
class EventDescriptor {
 public:
  EventDescriptor();
  void Raise();
  /// Whether it was readable until now, as far as the system can tell.
  bool Lower();
  void Close();
  /// Returns as soon as it is readable, at the latest after so many milliseconds.
  void Wait(int timeout) const;
  /// Negative when the system had none left.
  [[nodiscard]] int Get() const { return reading_.Get(); }

 private:
  [[nodiscard]] bool IsOurs() const;

  runtime::Descriptor reading_;  ///< of a pipe: unlike others, it can be told from every other file
  runtime::Descriptor writing_;
  struct stat made_ {};
};

/// Start, Stop and Abandon are for one thread at a time.
class EventWatch {
 public:
  EventWatch() = default;
  ~EventWatch() { Stop(); }
  EventWatch(const EventWatch&) = delete;
  EventWatch& operator=(const EventWatch&) = delete;

  /// Starts the thread, once. Readers that the filter leaves out by their name wake nobody. Without
  /// threads, or without PC/SC, the descriptor just never becomes readable by itself.
  void Start(const ReaderFilter& filter);
  /// Ends the thread and waits for that; the descriptor stays, and is not readable.
  void Stop();
  /// False in a forked child.
  [[nodiscard]] bool IsOurs() const { return owner_ == ::getpid(); }
  /// Instead of all else in a forked child, where the thread is not: gives the descriptors back.
  /// The object is of no more use, and may not be destroyed: the thread may hold its lock.
  void Abandon();

  [[nodiscard]] EventDescriptor& Event() { return event_; }
  /// Whether each change of a reader that counts raises the descriptor. The descriptor is raised
  /// once when that begins, and once when it ends.
  [[nodiscard]] bool TellsAll() const { return tellsAll_; }
  /// The whole names of the readers that went since the last call. They may be back, with another
  /// card: a poll that comes later sees nothing of that.
  [[nodiscard]] std::vector<std::string> TakeGone();

 private:
  struct Known {
    std::string name;
    PcscWord state = 0;
  };

  static void* RunThread(void* watch);
  void Run();
  bool Connect();
  void Disconnect();
  bool WaitForChange();
  void NoteGone(std::string_view names);
  bool TakeStates(std::span<const PcscReaderState> states);
  [[nodiscard]] PcscWord KnownState(std::string_view name) const;

  const pid_t owner_ = ::getpid();
  EventDescriptor event_;
  EventDescriptor stop_;  ///< ends the pauses of the thread
  std::atomic<bool> isStopping_ = false;
  std::atomic<bool> hasEnded_ = true;
  std::atomic<bool> tellsAll_ = false;
  runtime::CCritical guard_;  ///< for opening and closing the connection, and for Cancel
  PcscConnection connection_;
  runtime::CCritical goneGuard_;  ///< for the next
  std::vector<std::string> gone_;
  // The thread's own.
  ReaderFilter filter_;
  std::string current_;  ///< the names of the last round, as ReadNames gives them
  std::vector<Known> known_;
  bool wasUnknown_ = false;  ///< the last wait ended at once, for a reader that it did not know
};

}  // namespace qixx::bridge
