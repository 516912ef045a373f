// The request timer: one process-wide tick of 30 ms, and the record that turns ticks into an expiry. The signal handler
// only counts; a link's check thread hands the ticks to the pending requests (timerUpdate in queue.h). Senders and
// handlers arm and stop a Timer while the aging pass reads it, without a lock: each of its words is atomic, and a start
// seen half done costs at most one early or late expiry.
#pragma once

#include <atomic>
#include <cstdint>

namespace rvk {

inline constexpr int32_t tick_us = 30'000; // ours

// Periodic: when it runs out it reloads and sets `expired` until that is read.
struct Timer {
    std::atomic<int32_t> period;    // reload value in ticks; 0 means stopped
    std::atomic<int32_t> remaining; // ticks left before the next expiry
    std::atomic<int32_t> expired;   // non-zero once it has run out, until it is read
};
static_assert(std::atomic<int32_t>::is_always_lock_free);

extern std::atomic<int32_t> elapsed; // ticks not yet handed out

// Starts the ticks. Result: setitimer's, 0 or -1. Once, before the first link is started.
int initTimer();

void catch_alarm(int signal); // what a SIGALRM of the kernel's timer does: adds one tick

// Called by a link's check thread: all others block SIGALRM, so that no tick cuts a wait short or is late.
void receive_ticks_here();

// Arms a timer; ticks are taken as an unsigned 16-bit value, 0 leaves it stopped.
inline void timerStart(uint32_t ticks, Timer* timer)
{
    const int32_t armed = static_cast<uint16_t>(ticks);
    timer->expired = 0;
    timer->remaining = armed;
    timer->period = armed;
}

// Stops it; an expiry that was flagged already is still reported once.
inline void timerStop(Timer* timer) { timer->period = 0; }

// Result: 1 when it had run out since the last call, 0 otherwise, which nearly always takes no locked operation.
[[nodiscard]] inline int timerExpired(Timer* timer)
{
    return timer->expired != 0 && timer->expired.exchange(0) != 0 ? 1 : 0;
}

} // namespace rvk
