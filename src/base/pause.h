// The one way to sleep.
#pragma once

#include <cstdint>

namespace rvk {

// Sleeps for the whole of the time given, in microseconds of the monotonic clock, whatever signals arrive meanwhile.
// Any thread.
void pause_us(uint64_t us);
inline void pause_ms(uint64_t ms) { pause_us(ms * 1000); }

} // namespace rvk
