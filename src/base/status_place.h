// Where the daemon's status files are, and the clock by which their age is told: what the daemon and its client agree
// on.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <ctime>

namespace rvk {

inline constexpr char status_json_name[] = "status.json", status_prometheus_name[] = "status.prom";

inline const char* status_folder()
{
    const char* named = getenv("RVK_STATUS_DIR");
    return named != nullptr && *named != '\0' ? named : "/run/rvkd";
}

// Milliseconds since the machine's start, time asleep included: nobody sets that clock.
inline uint64_t boot_ms()
{
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1'000'000;
}

} // namespace rvk
