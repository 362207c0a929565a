// Spare: asked of this layer by the suite's design, built, called by nothing in this
// program.
//
// Further operations on the trace, under the rules of runtime/trace.h; runtime/trace.cpp defines
// them.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qixx::runtime {

using TraceLineCallback = void (*)(const char* line, std::size_t length);

/// Lines go to the callback as well as to a target; while there is one they have no header, in the
/// target neither. Null removes it. The callback runs with the lock held; it may trace, which
/// reuses the buffer of the line that it was given.
void TraceSetCallback(TraceLineCallback callback);
/// Sleeps that long after each line, with the lock held; 0, as at start, not at all.
void TraceSetDelay(std::int32_t milliseconds);
/// Waits for the end of queued writing; lines are written directly here, so there is none.
void TraceStop();

}  // namespace qixx::runtime
