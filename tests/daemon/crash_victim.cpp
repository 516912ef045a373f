// A process that dies as it is told: crash_victim CASE. What the daemon's last words are made of (crash, the log, the
// pool) is the daemon's own code; only the ways to die are ours. Started by death_test.py.
#include "base/pause.h"
#include "base/rt_thread.h"
#include "main/crash.h"
#include "main/log.h"
#include "mem/mem.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

using namespace rvk;

namespace {

std::atomic<bool> fault_in_trace{false}, refuse_symbols{false}, refuse_threads{false};
int* volatile nowhere = reinterpret_cast<int*>(64); // not null: UBSan would speak first

} // namespace

extern "C" {
int __real_backtrace(void** addresses, int size);
char** __real_backtrace_symbols(void* const* addresses, int count);
int __real_pthread_create(pthread_t* out, const pthread_attr_t* attributes, void* (*body)(void*), void* argument);

int __wrap_backtrace(void** addresses, int size)
{
    if (fault_in_trace) { *nowhere = 1; }
    return __real_backtrace(addresses, size);
}

char** __wrap_backtrace_symbols(void* const* addresses, int count)
{
    return refuse_symbols ? nullptr : __real_backtrace_symbols(addresses, count);
}

int __wrap_pthread_create(pthread_t* out, const pthread_attr_t* attributes, void* (*body)(void*), void* argument)
{
    return refuse_threads ? EAGAIN : __real_pthread_create(out, attributes, body, argument);
}

// Named in the trace, so that it can be told whose trace it is.
__attribute__((noinline)) void victim_faults_here()
{
    *nowhere = 1;
    *nowhere = 2; // no tail for a jump
}
}

namespace {

// Deep enough for any stack, and every page of it is touched.
__attribute__((noinline)) int use_up_the_stack(int depth)
{
    volatile char page[2048];
    for (size_t i = 0; i < sizeof page; i += 512) { page[i] = static_cast<char>(depth); }
    return depth < 1'000'000 ? use_up_the_stack(depth + 1) + page[depth % 2048] : 0;
}

void overflow(int) { static_cast<void>(use_up_the_stack(1)); }

void overflow_in_a_thread()
{
    if (start_thread("victim", 0, overflow, 0, nullptr) != 0) { abort(); }
}

void die_in_log() { log_print(LOG_HERE, "%s\n", reinterpret_cast<const char*>(8)); }

// A block that waits in the pool gets a broken head, for whoever gives it back to the system.
void break_the_heap()
{
    void* block = mem_alloc(100);
    mem_free(block);
    memset(static_cast<char*>(block) - sizeof(mem_block) - sizeof(size_t), 0x7F, sizeof(size_t));
    victim_faults_here();
}

const struct {
    const char* name;
    void (*run)();
} cases[] = {
    {"main", victim_faults_here},
    {"overflow-main", [] { overflow(0); }},
    {"overflow-thread", overflow_in_a_thread},
    {"log-argument", die_in_log},
    {"in-trace", [] { fault_in_trace = true, victim_faults_here(); }},
    {"no-symbols", [] { refuse_symbols = true, victim_faults_here(); }},
    {"broken-heap", break_the_heap},
    {"alone", victim_faults_here},
    {"alone-log-argument", die_in_log},
};

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) { return 2; }
    log_debug = 1;
    refuse_threads = strncmp(argv[1], "alone", 5) == 0;
    block_signals();
    signal_set();
    start_crash_threads();
    mem_init();
    for (const auto& row : cases) {
        if (strcmp(row.name, argv[1]) != 0) { continue; }
        row.run();
        for (;;) { pause_ms(1000); }
    }
    return 3; // no such case
}
