// How long something took: for the log, and for the counters.
#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>

namespace rvk {

// In whole microseconds, as seconds.
inline double seconds_since(std::chrono::steady_clock::time_point start)
{
    using namespace std::chrono;
    return static_cast<double>(duration_cast<microseconds>(steady_clock::now() - start).count()) / 1'000'000.0;
}

// Microseconds of the monotonic clock modulo 2^32: for differences of up to 71 minutes.
inline uint32_t monotonic_us()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint32_t>(now.tv_sec) * 1'000'000u + static_cast<uint32_t>(now.tv_nsec) / 1000u;
}

} // namespace rvk
