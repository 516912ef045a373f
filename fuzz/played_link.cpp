#include "played_link.h"

#include "eth_raw/link.h"
#include "mem/mem.h"
#include "queue/queue.h"
#include "raw_msg/link_threads.h"
#include "timer/timer.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <semaphore.h>
#include <sys/socket.h>
#include <vector>

using namespace rvk;

played_link* played = nullptr;

namespace {

constexpr uint64_t pass_us = 10'000;  // of the check thread
constexpr int passes_per_tick = 3;    // 30 ms
constexpr int passes_max = 1'000'000; // of an input that never ends

void collect_due()
{
    std::vector<reply_frame> out;
    played->farm.due(played->now_us, out);
    played->on_the_wire.insert(played->on_the_wire.end(), out.begin(), out.end());
}

void receive_or_let_time_pass()
{
    if (!played->on_the_wire.empty()) { return receive_step(0); }
    played->now_us += pass_us;
    if (played->now_us / pass_us > passes_max) { abort(); }
    if (played->now_us / pass_us % passes_per_tick == 0) { catch_alarm(SIGALRM); }
    check_step(0);
    collect_due();
}

bool blocks_are_out()
{
    for (int type = 0; type < static_cast<int>(mem_classes); ++type) {
        if (mem_in_use(type) != 0) { return true; }
    }
    return false;
}

} // namespace

void open_played_link()
{
    queue_init();
    mem_init();
    g_eth_init[0].active = 1;
}

void set_fault(played_link& link, uint8_t choice)
{
    card_faults faults{.seed = choice};
    if (choice != 0) { faults.*fault_table()[choice % fault_count].how_often = 0.5; }
    link.farm.set_faults(faults);
}

void drain()
{
    while (!played->on_the_wire.empty() || blocks_are_out()) { receive_or_let_time_pass(); }
}

uint64_t bad_frames(const farm_counts& counts)
{
    uint64_t sum = 0;
    for (auto v = static_cast<size_t>(verdict::wrong_destination); v < verdict_count; ++v) {
        sum += counts.verdicts[v];
    }
    return sum;
}

extern "C" {

void __wrap_perror(const char*) {}

int __wrap_clock_nanosleep(clockid_t, int, const timespec*, timespec*) { return 0; }

ssize_t __wrap_sendto(int, const void* frame, size_t count, int, const sockaddr*, socklen_t)
{
    const std::span bytes{static_cast<const uint8_t*>(frame), count};
    if (played->on_frame != nullptr) { played->on_frame(bytes); }
    if (played->refuse_every != 0 && ++played->frames % played->refuse_every == 0) {
        errno = ENETDOWN;
        return -1;
    }
    std::vector<reply_frame> out;
    played->farm.request(bytes, played->now_us, out);
    played->on_the_wire.insert(played->on_the_wire.end(), out.begin(), out.end());
    return static_cast<ssize_t>(count);
}

ssize_t __wrap_recvfrom(int, void* buffer, size_t room, int, sockaddr*, socklen_t*)
{
    const reply_frame frame = played->on_the_wire.front();
    played->on_the_wire.pop_front();
    const size_t count = std::min(room, frame.length);
    std::copy_n(frame.bytes.begin(), count, static_cast<uint8_t*>(buffer));
    return static_cast<ssize_t>(count);
}

int __wrap_sem_wait(sem_t* answer)
{
    while (sem_trywait(answer) != 0) { receive_or_let_time_pass(); }
    return 0;
}
}
