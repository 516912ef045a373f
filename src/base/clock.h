// The clocks, and the one way to sleep.
#pragma once

#include <cerrno>
#include <cstdint>
#include <ctime>

namespace rvk {

// Microseconds of the monotonic clock modulo 2^32: for differences of up to 71 minutes.
inline uint32_t monotonic_us()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint32_t>(now.tv_sec) * 1'000'000u + static_cast<uint32_t>(now.tv_nsec) / 1000u;
}
inline double seconds_since(uint32_t start_us) { return (monotonic_us() - start_us) / 1'000'000.0; }

// Milliseconds since the machine's start, time asleep included; nobody sets that clock. For the age of a status file.
inline uint64_t boot_ms()
{
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1'000'000;
}

// Sleeps for the whole of the time given, in microseconds of the monotonic clock, whatever signals arrive meanwhile.
inline void pause_us(uint64_t us)
{
    timespec until{};
    clock_gettime(CLOCK_MONOTONIC, &until);
    const uint64_t ns = static_cast<uint64_t>(until.tv_nsec) + us * 1000;
    until.tv_sec += static_cast<time_t>(ns / 1'000'000'000);
    until.tv_nsec = static_cast<long>(ns % 1'000'000'000);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {}
}
inline void pause_ms(uint64_t ms) { pause_us(ms * 1000); }

// For a thread that computes above the priority of others on its processor: sleeps 50 µs when its last sleep here is
// `after_us` ago. They get a turn then, and so does whoever waits elsewhere for a lock that one of them holds: the
// mutexes have no priority inheritance.
inline void let_others_run(uint32_t after_us)
{
    thread_local uint32_t slept = 0;
    if (monotonic_us() - slept < after_us) { return; }
    pause_us(50); // ours
    slept = monotonic_us();
}
inline constexpr uint32_t long_turn_us = 8000; // ours: of pictures and floods; goal: resends ≤ 20 ms late
inline constexpr uint32_t short_turn_us = 100; // ours: of copying; a read by the IPC thread needs some four turns

} // namespace rvk
