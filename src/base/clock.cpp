#include "base/clock.h"

#include <cerrno>

namespace rvk {
namespace {

constexpr uint64_t others_turn_us = 50; // ours

} // namespace

void pause_us(uint64_t us)
{
    timespec until{};
    clock_gettime(CLOCK_MONOTONIC, &until);
    const uint64_t ns = static_cast<uint64_t>(until.tv_nsec) + us * 1000;
    until.tv_sec += static_cast<time_t>(ns / 1'000'000'000);
    until.tv_nsec = static_cast<long>(ns % 1'000'000'000);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {}
}

void let_others_run(uint32_t after_us)
{
    thread_local uint32_t slept = 0;
    if (monotonic_us() - slept < after_us) { return; }
    pause_us(others_turn_us);
    slept = monotonic_us();
}

} // namespace rvk
