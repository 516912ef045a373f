// The one way to sleep.
#pragma once

#include <cstddef>
#include <cstdint>

namespace rvk {

// Sleeps for the whole of the time given, in microseconds of the monotonic clock, whatever signals arrive meanwhile.
// Any thread.
void pause_us(uint64_t us);
inline void pause_ms(uint64_t ms) { pause_us(ms * 1000); }

// For a thread that computes for milliseconds above the priority of others on its processor: told how many bytes it has
// handled, it sleeps 100 µs after each 512 KiB, so that others get their turn.
void let_others_run(size_t bytes);

} // namespace rvk
