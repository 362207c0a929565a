// The PC/SC library and a connection to its service.
//
// The library is loaded at run time on first need, and never given back. It is asked for the
// readers and their state and for nothing else: no card is connected to.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace qixx::bridge {

// The interface of PC/SC as the pcsc-lite project publishes it for this platform, where both of its
// number types are one machine word.
using PcscWord = unsigned long;

struct PcscReaderState {
  const char* name = nullptr;
  void* userData = nullptr;
  PcscWord knownState = 0;
  PcscWord state = 0;
  PcscWord answerLength = 0;
  unsigned char answerToReset[33] = {};
};

enum class PcscResult : std::uint32_t {
  kSuccess = 0,
  kInsufficientBuffer = 0x80100008,
  kUnknownReader = 0x80100009,
  kTimeout = 0x8010000A,
  kNoReaders = 0x8010002E,
};

inline constexpr PcscWord kPcscStatePresent = 0x20;
/// The upper half of a reader's state counts its insertions and removals, that of the notifier
/// counts the readers.
inline constexpr unsigned kPcscCountShift = 16;
inline constexpr PcscWord kPcscInfinite = 0xFFFFFFFF;
/// The name of a reader that is none: its state changes when readers come and go.
inline constexpr const char* kPcscReaderNotifier = "\\\\?PnP?\\Notification";

/// A list of reader names without any.
inline constexpr std::string_view kNoNames("\0", 1);

/// PC/SC knows no more readers, and refuses a question that is about more than these.
inline constexpr std::size_t kMaxReaders = 16;

/// Whether this machine has the library.
[[nodiscard]] bool HasPcsc();

/// Used by one thread at a time, but for Cancel.
class PcscConnection {
 public:
  PcscConnection() = default;
  ~PcscConnection() { Close(); }
  PcscConnection(const PcscConnection&) = delete;
  PcscConnection& operator=(const PcscConnection&) = delete;

  /// Each try may start the service. A service that refuses logs each refusal, so do not call it
  /// often.
  bool Open();
  void Close();
  /// Instead of Close in a forked child: the connection is the parent's.
  void Abandon() { isOpen_ = false; }
  [[nodiscard]] bool IsOpen() const { return isOpen_; }

  /// The names of the readers, each ended by a zero byte, then an empty one: a view into the
  /// connection's own buffer, valid until the next call. Nothing when the connection is of no more
  /// use. Allocates only to make the buffer larger than ever before. May throw std::bad_alloc.
  [[nodiscard]] std::optional<std::string_view> ReadNames();
  /// Waits, at most so many milliseconds, until a state differs from the known one. For at most
  /// kMaxReaders.
  [[nodiscard]] PcscResult WaitForChange(PcscWord timeout, std::span<PcscReaderState> readers);
  /// Ends a WaitForChange of another thread that has begun. The caller sees to it that the
  /// connection is not closed meanwhile.
  void Cancel();

 private:
  long context_ = 0;
  bool isOpen_ = false;
  std::vector<char> names_;
};

/// The part of a reader's name that a slot description has room for, without trailing blanks.
[[nodiscard]] std::string_view CutReaderName(std::string_view name);

}  // namespace qixx::bridge
