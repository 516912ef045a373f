// The replaced calls; see the header. The names with `wrap` in them are what the linker puts in the real ones' place.
#include "sim/world.h"

#include "ap_msg/message.h"
#include "eth_raw/link.h"
#include "mem/mem.h"
#include "platform/platform.h"
#include "queue/queue.h"
#include "raw_msg/link_threads.h"
#include "timer/timer.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <pthread.h>
#include <random>
#include <semaphore.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#if __SIZEOF_POINTER__ == 4 // whose time has 64 bits only by these names
#define CLOCK_GETTIME "__clock_gettime64"
#define CLOCK_NANOSLEEP "__clock_nanosleep_time64"
#else
#define CLOCK_GETTIME "clock_gettime"
#define CLOCK_NANOSLEEP "clock_nanosleep"
#endif

namespace rvk {

world* here = nullptr;

namespace {

constexpr uint64_t start_us = 1'000'000;       // a clock that says 0 says nothing
constexpr uint64_t end_us = uint64_t{1} << 34; // of a world that never comes to rest
sem_t* waited_for = nullptr;                   // by the innermost sender that waits
bool is_link_held = false;                     // by whoever runs: its handlers send, too

[[noreturn]] void give_up(const char* what)
{
    fprintf(stderr, "simulated time: %s\n", what);
    abort();
}

// A sender may be preempted before it takes the lock of its send, and when it has given it back.
bool is_held_at(const pthread_mutex_t* lock)
{
    static_assert(sizeof(mutex) == sizeof(pthread_mutex_t));
    return here != nullptr && !is_link_held && lock == reinterpret_cast<pthread_mutex_t*>(&g_eth_init[0].send_mutex);
}

bool is_links(const pthread_mutex_t* lock) { return lock == reinterpret_cast<pthread_mutex_t*>(&find_check_mtx[0]); }

} // namespace

world::world()
{
    if (std::exchange(here, this) != nullptr) { give_up("one world at a time"); }
    request_ended = report_end;
    queue_init();
    elapsed = 0;
    g_eth_init[0].active = 1;
}

world::~world() { here = nullptr; }

long world::to_cards(std::span<const uint8_t> frame)
{
    std::vector<reply_frame> out;
    farm.request(frame, now_us, out);
    wire.insert(wire.end(), out.begin(), out.end());
    return static_cast<long>(frame.size());
}

void world::arrive(std::span<const uint8_t> frame)
{
    wire.emplace_front(frame.begin(), frame.end());
    receive_step(0);
}

void world::tick(int handed_out)
{
    for (int i = 0; i < handed_out; ++i) { catch_alarm(SIGALRM); }
    now_us += static_cast<uint64_t>(handed_out) * tick_time_us;
    if (now_us > end_us) { give_up("it does not end"); }
    while (check_step(0)) {}
    offer_outbox();
    std::vector<reply_frame> due;
    farm.due(now_us, due);
    wire.insert(wire.end(), due.begin(), due.end());
}

void world::step() { return wire.empty() ? tick() : receive_step(0); }

void world::drain()
{
    while (!wire.empty() || blocks_in_use() != 0) { step(); }
}

bool world::woken() const
{
    int posted = 0;
    return waited_for != nullptr && sem_getvalue(waited_for, &posted) == 0 && posted > 0;
}

int blocks_in_use()
{
    int sum = 0;
    for (int type = 0; type < static_cast<int>(mem_classes); ++type) { sum += mem_in_use(type); }
    return sum;
}

bytes_t data_at(uint32_t addr, size_t n)
{
    static bytes_t all;
    static std::minstd_rand numbers;
    while (all.size() < 70'000) { all.push_back(static_cast<uint8_t>(numbers() >> 8)); }
    const auto begin = all.begin() + addr % 4096;
    return {begin, begin + static_cast<std::ptrdiff_t>(n)};
}

} // namespace rvk

using rvk::here;

extern "C" {

void* real_alloc(unsigned size) asm("__real__ZN3rvk9mem_allocEj");
void* wrapped_alloc(unsigned size) asm("__wrap__ZN3rvk9mem_allocEj");
void real_free(void* data) asm("__real__ZN3rvk8mem_freeEPv");
void wrapped_free(void* data) asm("__wrap__ZN3rvk8mem_freeEPv");
int real_clock(clockid_t clock, timespec* now) asm("__real_" CLOCK_GETTIME);
int wrapped_clock(clockid_t clock, timespec* now) asm("__wrap_" CLOCK_GETTIME);
int wrapped_sleep(clockid_t, int, const timespec* until, timespec*) asm("__wrap_" CLOCK_NANOSLEEP);
int __real_pthread_mutex_lock(pthread_mutex_t* lock);
int __real_pthread_mutex_unlock(pthread_mutex_t* lock);

void* wrapped_alloc(unsigned size)
{
    if (here == nullptr || here->blocks_left < 0) { return real_alloc(size); }
    return here->blocks_left-- > 0 ? real_alloc(size) : (here->blocks_left = 0, nullptr);
}

// What still looks at a block that was given back finds rubbish.
void wrapped_free(void* data)
{
    if (data != nullptr) { memset(data, 0xDD, (static_cast<rvk::mem_block*>(data) - 1)->size); }
    real_free(data);
}

int __wrap_pthread_mutex_lock(pthread_mutex_t* lock)
{
    if (rvk::is_held_at(lock) && here->before_send) { here->before_send(); }
    const int result = __real_pthread_mutex_lock(lock);
    if (rvk::is_links(lock)) { rvk::is_link_held = true; }
    return result;
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* lock)
{
    if (rvk::is_links(lock)) { rvk::is_link_held = false; }
    const int result = __real_pthread_mutex_unlock(lock);
    if (rvk::is_held_at(lock) && here->after_send) { here->after_send(); }
    return result;
}

ssize_t __wrap_sendto(int, const void* data, size_t count, int, const sockaddr*, socklen_t)
{
    const std::span frame{static_cast<const uint8_t*>(data), count};
    const long result = here->on_frame ? here->on_frame(frame) : here->to_cards(frame);
    if (result == static_cast<long>(count)) { here->frames.emplace_back(frame.begin(), frame.end()); }
    errno = result < 0 ? static_cast<int>(-result) : EAGAIN; // a good send leaves it as it was: at anything
    return result < 0 ? -1 : result;
}

ssize_t __wrap_recvfrom(int, void* buffer, size_t size, int, sockaddr*, socklen_t*)
{
    if (here->wire.empty()) { rvk::give_up("nothing to receive"); }
    const rvk::bytes_t frame = std::move(here->wire.front());
    here->wire.pop_front();
    const size_t taken = std::min(size, frame.size());
    std::copy_n(frame.begin(), taken, static_cast<uint8_t*>(buffer));
    return static_cast<ssize_t>(taken);
}

int __wrap_sem_wait(sem_t* sem)
{
    sem_t* const outer = std::exchange(rvk::waited_for, sem);
    while (sem_trywait(sem) != 0) { here->on_wait ? here->on_wait() : here->step(); }
    rvk::waited_for = outer;
    return 0;
}

int wrapped_clock(clockid_t clock, timespec* now)
{
    if (here == nullptr || clock != CLOCK_MONOTONIC) { return real_clock(clock, now); }
    const uint64_t us = rvk::start_us + here->now_us;
    *now = {static_cast<time_t>(us / 1'000'000), static_cast<long>(us % 1'000'000 * 1000)};
    return 0;
}

int wrapped_sleep(clockid_t, int, const timespec* until, timespec*)
{
    const auto us = static_cast<uint64_t>(until->tv_sec) * 1'000'000 + static_cast<uint64_t>(until->tv_nsec) / 1000;
    const uint64_t slept = us - rvk::start_us - here->now_us;
    if (here->on_pause) { here->on_pause(slept); }
    here->now_us += slept;
    return 0;
}

bool __wrap__ZN3rvk13console_printEiPKcz(int fd, const char*, ...)
{
    if (here != nullptr && fd == STDERR_FILENO) { ++here->errors_shown; }
    return true;
}

int apipc_init(uint32_t, int) { return 0; }
int apipc_loop_wait(int, apipc_callback) { return -1; }
int apcard_bit_self(void) { return 1; }

int apipc_send(uint32_t to, const void* data, uint32_t count)
{
    const auto* begin = static_cast<const uint8_t*>(data);
    if (here->deaf) { return -EAGAIN; }
    here->messages.push_back({to, {begin, begin + count}});
    if (here->on_message) { here->on_message(here->messages.back()); }
    return 0;
}

int my_system(const char* line) { return here->on_shell ? here->on_shell(line) : 0; }
}
