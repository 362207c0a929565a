// The trace log: the one diagnostic channel of the system.
//
// Tracing is off unless the configuration names a trace file for the running component. A line that
// cannot be written is lost, and writing one allocates nothing. Every operation may be called from
// any thread; one recursive lock is held for the whole build and write of a line. The state
// outlives every static destructor. Writing a line or a side file leaves errno alone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "runtime/sync.h"

namespace qixx::runtime {

/// Longest line with its line end; a longer one is cut so that the line end fits.
inline constexpr std::size_t kMaxTraceLine = 10'239;
/// Longest format; a longer one is cut.
inline constexpr std::size_t kMaxTraceFormat = 126;

/// Writes one line. At most ten argument slots: where ten are taken and one more '%' follows, a
/// text that says so is written instead. A null argument of a bare "%s" is written as "[null]".
/// Arguments are integers, characters, texts and pointers; no floating point.
[[gnu::format(printf, 1, 2)]] void TraceWrite(const char* format, ...);

/// Switches tracing on as the settings say; standard error tells of a file that takes no line.
void TraceInit(std::string_view component);

struct TraceSettings {
  std::string path;
  bool callMode = false;
  /// Known, and without effect: the stamp counts from the first line whatever the zone. Intended,
  /// existing configurations hold the entry.
  bool useLocalTime = false;
};
/// The path comes from section "Trace": the component's entry, or "File" when that is absent; where
/// it is empty, from the component's entry in "Trace Call", which means call mode. Nothing without
/// a path.
[[nodiscard]] std::optional<TraceSettings> TraceReadSettings(std::string_view component);

/// The target that is the system's journal, and no file.
inline constexpr std::string_view kJournalTarget = "journal";
/// Whether a name ends as a trace file must: ".txt" or ".log".
[[nodiscard]] bool IsTraceFileName(std::string_view name);

/// Installs a target file and writes the date line; an empty name clears tracing. A name longer
/// than kMaxText is ignored. One with an extension other than ".txt" and ".log" keeps the previous
/// target, which gets another date line. The file is made for its owner only. What is no regular
/// file of the service's user with one name is left alone, and so is a link; standard error says so
/// once. Links of folders are followed here, those of that user and of root, and not again. Lines
/// of a target named "server..." go to no file, those of kJournalTarget go to the journal.
void TraceSetFile(std::string_view name);
void TraceSetFile(std::nullptr_t) = delete;
/// Installs a target in call mode with the given release counter; without a name clears it. No
/// check of the extension and no date line: intended, the calling-application line relies on it.
void TraceSetCallTarget(std::optional<std::string_view> name, std::int32_t counter);
/// In call mode lets exactly the next line pass.
void TraceReleaseOneLine();
[[nodiscard]] bool TraceIsOn();
/// Keeps a copy of a data block in a file beside the target ("~qix" and the name), made for its
/// owner only, under the rules for the target. In call mode it takes the place of a released line.
void TraceDump(std::string_view name, std::span<const std::uint8_t> data);

/// From here on the lines of the calling thread bear the id of that one, for which it works.
void TraceOnBehalfOf(ThreadId thread);

/// The trace's lock, to be held while the process forks, so that the child of a threaded program
/// may trace; both sides give it back. It is made when there is none yet: another thread may be
/// about to make it and to write a line.
[[nodiscard]] CCritical& TraceLock();

}  // namespace qixx::runtime
