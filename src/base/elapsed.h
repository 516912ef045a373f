// How long something took: for the log, and for the counters.
#pragma once

#include <chrono>
#include <cstdint>

namespace rvk {

// In whole microseconds, as seconds.
inline double seconds_since(std::chrono::steady_clock::time_point start)
{
    using namespace std::chrono;
    return static_cast<double>(duration_cast<microseconds>(steady_clock::now() - start).count()) / 1'000'000.0;
}

// Microseconds of the monotonic clock; their low 32 bits are enough for a difference of up to 71 minutes.
inline uint64_t monotonic_us()
{
    using namespace std::chrono;
    return static_cast<uint64_t>(duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count());
}

} // namespace rvk
