// The trace log: the one diagnostic channel of the system.
//
// Tracing is off unless the configuration names a trace file for the running component. Failures
// never reach the caller: a line that cannot be written is lost. Every operation may be called from
// any thread; one recursive lock is held for the whole build and write of a line. Only clearing the
// target frees that lock, so nothing else may trace at that moment. The state outlives every static
// destructor. Writing a line or a side file leaves errno alone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace qixx::runtime {

/// Size of the area in which a line is built; longer lines are cut so that their line end fits.
inline constexpr std::size_t kTraceLineSize = 10240;
/// Longest format; a longer one is cut.
inline constexpr std::size_t kTraceFormatLength = 126;

using TraceLineCallback = void (*)(const char* line, std::size_t length);

/// Writes one line. At most ten argument slots: a format with exactly ten and more to come is
/// replaced by a text that says so. A null argument of a bare "%s" is written as "[null]".
/// Knows "%%" and integers in all sizes, "%c", "%s" and "%p" with flags, width and precision; from
/// any other directive on (floating point, wide text) the format is copied as it stands.
[[gnu::format(printf, 1, 2)]] void TraceWrite(const char* format, ...);

/// Reads the settings of the component and switches tracing on accordingly.
void TraceInit(const char* component);
/// Fills `path` from section "Trace": the component's entry, or "File" when that is absent. A
/// non-null `callMode` asks section "Trace Call" too when the path is empty so far, and says
/// whether the path came from there. Returns true when a path was found.
bool TraceReadSettings(const char* component, std::span<char> path, bool* callMode);
/// Installs a target file and writes the date line; null or empty clears tracing. A name of 256
/// characters or more is ignored. One with an extension other than ".txt" and ".log" keeps the
/// previous target, which gets another date line. The file is made for its owner only; what is no
/// regular file is left alone. Lines of a target named "server..." go to no file.
void TraceSetFile(const char* name);
/// Installs a target in call mode with the given release counter; null clears it. No check of the
/// extension and no date line, as intended.
void TraceSetCallTarget(const char* name, std::int32_t counter);
/// In call mode lets exactly the next line pass.
void TraceReleaseOneLine();
[[nodiscard]] bool TraceIsOn();
/// Keeps a copy of a data block in a file beside the target ("~qix" and the name), made for its
/// owner only; links are not followed, and what is somebody else's or has a second name is left
/// alone. In call mode it takes the place of a released line.
void TraceDump(const char* name, std::span<const std::uint8_t> data);
/// Waits for the end of queued writing; lines are written directly here, so there is none.
void TraceStop();

/// Lines go to the callback, without header, as well as to a target; null removes it. The callback
/// runs with the lock held; it may trace, which reuses the area of the line that it was given. Not
/// used by the program itself.
void TraceSetCallback(TraceLineCallback callback);
/// Sleeps that long after each line, with the lock held. Not used by the program itself.
void TraceSetDelay(std::int32_t milliseconds);

/// Holds the trace lock across fork, so that the child of a threaded program may trace. Both sides
/// give it back with TraceUnlockAfterFork.
void TraceLockForFork();
void TraceUnlockAfterFork();

/// Milliseconds within the UTC day since `base`, with one wrap at midnight.
[[nodiscard]] std::uint32_t ElapsedMilliseconds(std::uint32_t base);

}  // namespace qixx::runtime
