// How long something took, for the log.
#pragma once

#include <chrono>

namespace rvk {

// In whole microseconds, as seconds.
inline double seconds_since(std::chrono::steady_clock::time_point start)
{
    using namespace std::chrono;
    return static_cast<double>(duration_cast<microseconds>(steady_clock::now() - start).count()) / 1'000'000.0;
}

} // namespace rvk
