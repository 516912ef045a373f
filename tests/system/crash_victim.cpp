// A process that dies as it is told: crash_victim CASE SEED. What the daemon's last words are made of (crash, the log
// to files and standard output, the pool) is the daemon's own code; only the ways to die are ours. Started by
// crash_test.
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
#include <random>

using namespace rvk;

namespace {

std::atomic<bool> fault_in_trace{false}, refuse_symbols{false}, refuse_threads{false}, go{false};
std::mt19937 dice;                                  // the main thread's
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
__attribute__((noinline)) void victim_faults_here(int thread)
{
    nowhere[thread] = 1; // each to its own, so that there is no race
    nowhere[thread] = 2; // no tail for a jump
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

void fault_when_told(int argument)
{
    while (!go) {}
    victim_faults_here(argument);
}

void use_allocator(int)
{
    for (unsigned size = 1;; size = size * 5 % 9001 + 1) {
        void* volatile block = malloc(size); // volatile: neither call may be left out
        free(block);
    }
}

void use_pool(int)
{
    for (unsigned size = 1;; size = size * 5 % 8192 + 1) { mem_free(mem_alloc(size)); }
}

void use_log(int)
{
    for (int i = 0;; ++i) { log_print(LOG_HERE, "line %d of many\n", i); }
}

pthread_t start(thread_body body, int argument = 0)
{
    pthread_t thread{};
    if (start_thread("victim", 0, body, argument, &thread) != 0) { abort(); }
    return thread;
}

[[noreturn]] void wait_for_the_end()
{
    for (;;) { pause_ms(1000); }
}

// Two threads do this, and one of them is hit at some moment of it.
void hit_while(thread_body body)
{
    const pthread_t threads[] = {start(body), start(body)};
    pause_us(dice() % 3000);
    pthread_kill(threads[dice() % 2], SIGSEGV);
    wait_for_the_end();
}

void fault_in_log() { log_print(LOG_HERE, "%s\n", reinterpret_cast<const char*>(8)); }

// A block that waits in the pool gets a broken head, for whoever gives it back to the system.
void break_the_heap()
{
    void* block = mem_alloc(100);
    mem_free(block);
    memset(static_cast<char*>(block) - sizeof(mem_block) - sizeof(size_t), 0x7F, sizeof(size_t));
    victim_faults_here(0);
}

void all_at_once()
{
    for (int i = 1; i < 5; ++i) { start(fault_when_told, i); }
    pause_ms(2);
    go = true;
    kill(getpid(), SIGTERM);
    victim_faults_here(0);
}

const struct {
    const char* name;
    void (*run)();
} cases[] = {
    {"main", [] { victim_faults_here(0); }},
    {"thread", [] { go = true, start(fault_when_told), wait_for_the_end(); }},
    {"raised", [] { raise(SIGSEGV); }},
    {"overflow-main", [] { overflow(0); }},
    {"overflow-thread", [] { start(overflow), wait_for_the_end(); }},
    {"in-allocator", [] { hit_while(use_allocator); }},
    {"in-pool", [] { hit_while(use_pool); }},
    {"in-log", [] { hit_while(use_log); }},
    {"log-argument", fault_in_log},
    {"in-trace", [] { fault_in_trace = true, victim_faults_here(0); }},
    {"no-symbols", [] { refuse_symbols = true, victim_faults_here(0); }},
    {"broken-heap", break_the_heap},
    {"all-at-once", all_at_once},
    {"alone", [] { victim_faults_here(0); }},
    {"alone-log-argument", fault_in_log},
};

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) { return 2; }
    dice.seed(static_cast<unsigned>(atoi(argv[2])));
    log_debug = 1;
    refuse_threads = strncmp(argv[1], "alone", 5) == 0;
    block_signals();
    signal_set();
    start_crash_threads();
    mem_init();
    for (const auto& row : cases) {
        if (strcmp(row.name, argv[1]) == 0) { row.run(); }
    }
    return 3; // no such case, or it was survived
}
