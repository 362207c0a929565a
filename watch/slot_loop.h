// The watcher's run: background program, library, slot events, orderly end.
//
// Everything here runs on the main thread. A round without an event allocates nothing and touches
// no file, and wakes the process once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "pkcs11/cryptoki.h"
#include "watch/options.h"

namespace qixx {

/// The whole run of one watcher.
void RunWatch(CWatchOptions& record);
/// The slot loop.
void WatchSlots(CWatchOptions& record);
/// The logon variant.
void WatchLogonSlot(CWatchOptions& record);

/// Sleeps; ends early when the process is asked to stop. Returns false in that case.
bool WatchSleep(unsigned milliseconds);

/// A wait before an event is made in rounds of that many milliseconds, three to a second.
inline constexpr unsigned kWaitPause = 333;
/// The rounds of a wait in seconds; saturates.
[[nodiscard]] constexpr std::uint64_t WaitRounds(std::uint64_t seconds) {
  return seconds > UINT64_MAX / 3 ? UINT64_MAX : seconds * 3;
}

/// Size of the area for the logon user's name, terminator included.
inline constexpr std::size_t kLogonUserSize = 100;

/// What the logon variant asks the platform.
struct LogonQueries {
  /// The active logon user's name; false when there is none.
  bool (*user)(std::span<char> name);
  /// As FindLogonSlot.
  bool (*slot)(const char* user, std::span<const CK_SLOT_ID> slots, CK_SLOT_ID& slot,
               std::span<std::uint8_t> certificate, std::size_t& certificateLength);
};
/// Replaces the questions; null brings back the platform's own, of which the first has no answer
/// here. Not used by the program itself.
void SetLogonQueries(const LogonQueries* queries);

}  // namespace qixx
