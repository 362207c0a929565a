// Time that only goes forward, and sleeping.
//
// Every function may be called from any thread. Nothing is thrown.
#pragma once

#include <cstdint>
#include <ctime>

namespace qixx::runtime {

/// Milliseconds since an arbitrary moment; not moved when somebody sets the clock.
[[nodiscard]] std::int64_t MonotonicMilliseconds();

/// The same time as the system's sleeps take it; not negative.
[[nodiscard]] timespec TimeSpan(std::int64_t milliseconds);
/// Sleeps the whole time, whatever signals arrive; not at all when it is not positive.
void SleepMilliseconds(std::int64_t milliseconds);

}  // namespace qixx::runtime
