// The one way to sleep.
#pragma once

#include <cstdint>

namespace rvk {

// Sleeps for the whole of the time given, in microseconds of the monotonic clock, whatever signals arrive meanwhile.
// Any thread.
void pause_us(uint64_t us);
inline void pause_ms(uint64_t ms) { pause_us(ms * 1000); }

// For a thread that computes above the priority of others on its processor, every so often: sleeps 50 µs when it has
// not slept here for that long. So those others get a turn, and so does whoever waits elsewhere for a lock that one of
// them was preempted with: priority inheritance would not help where nobody who waits is above the one that computes.
void let_others_run(uint32_t after_us);
inline constexpr uint32_t picture_turn_us = 8000; // ours: a resend is at most 20 ms late
inline constexpr uint32_t copy_turn_us = 250;     // ours: a read that is waited for takes some four turns

} // namespace rvk
