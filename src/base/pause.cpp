#include "base/pause.h"

#include <cerrno>
#include <ctime>

namespace rvk {

void pause_us(uint64_t us)
{
    timespec until{};
    clock_gettime(CLOCK_MONOTONIC, &until);
    const uint64_t ns = static_cast<uint64_t>(until.tv_nsec) + us * 1000;
    until.tv_sec += static_cast<time_t>(ns / 1'000'000'000);
    until.tv_nsec = static_cast<long>(ns % 1'000'000'000);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {}
}

} // namespace rvk
