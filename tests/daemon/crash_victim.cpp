// A process that dies as it is told: crash_victim CASE. The last words are the daemon's own code; only the ways to
// die are ours. Started by death_test.py.
#include "base/pause.h"
#include "base/rt_thread.h"
#include "main/crash.h"
#include "main/log.h"

#include <csignal>
#include <cstdlib>
#include <cstring>

using namespace rvk;

namespace {

int* volatile nowhere = reinterpret_cast<int*>(64); // not null: UBSan would speak first

} // namespace

extern "C" {
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

const struct {
    const char* name;
    void (*run)();
} cases[] = {
    {"main", victim_faults_here},
    {"overflow-main", [] { overflow(0); }},
    {"overflow-thread", overflow_in_a_thread},
    {"log-argument", die_in_log},
};

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) { return 2; }
    log_debug = 1;
    block_signals();
    signal_set();
    start_crash_threads();
    for (const auto& row : cases) {
        if (strcmp(row.name, argv[1]) != 0) { continue; }
        row.run();
        for (;;) { pause_ms(1000); }
    }
    return 3; // no such case
}
