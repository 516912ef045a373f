#include "base/pause.h"

#include <cerrno>
#include <ctime>

namespace rvk {
namespace {

constexpr size_t turn_bytes = 512 * 1024; // ours: 100 to 200 µs of copying or writing
constexpr uint64_t others_turn_us = 100;  // ours

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

void let_others_run(size_t bytes)
{
    thread_local size_t handled = 0;
    handled += bytes;
    if (handled < turn_bytes) { return; }
    handled = 0;
    pause_us(others_turn_us);
}

} // namespace rvk
