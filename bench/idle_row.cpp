// The daemon at rest: the processor time of the real rvkd beside that of a bare process with its two clocks, over the
// same seconds, and its resident memory.
#include "base/pause.h"
#include "cables.h"
#include "harness.h"
#include "processes.h"
#include "rows.h"

#include <cerrno>
#include <csignal>
#include <ctime>
#include <sys/time.h>
#include <vector>

namespace rvk::bench {
namespace {

constexpr uint64_t window_ms = 1000;
constexpr int check_priority = 89; // the daemon's own
volatile sig_atomic_t ticks;

// A tick of 30 ms and a loop that sleeps 10 ms: less cannot keep the daemon's timing.
void tick_and_sleep()
{
    take_processor(check_priority);
    struct sigaction action = {};
    action.sa_handler = [](int) { ticks = ticks + 1; };
    action.sa_flags = SA_RESTART;
    sigaction(SIGALRM, &action, nullptr);
    const itimerval every{{0, 30'000}, {0, 30'000}};
    setitimer(ITIMER_REAL, &every, nullptr);
    for (;;) {
        timespec left{0, 10'000'000};
        while (nanosleep(&left, &left) != 0 && errno == EINTR) {}
    }
}

} // namespace

void idle_row(const settings& chosen)
{
    const simulated_cards cards(card_priority);
    const child daemon = start_daemon();
    const child bare(tick_and_sleep);
    std::vector<double> of_ours, of_bare;
    pause_ms(window_ms);
    for (int round = 0; round < chosen.rounds; ++round) {
        const double ours = processor_time_ns(daemon.pid());
        const double theirs = processor_time_ns(bare.pid());
        pause_ms(window_ms);
        of_ours.push_back((processor_time_ns(daemon.pid()) - ours) / 1000);
        of_bare.push_back((processor_time_ns(bare.pid()) - theirs) / 1000);
    }
    print_ratio("rvkd at rest, processor time", "a process with a 30 ms tick and a 10 ms sleep loop", "µs per second",
                {median(of_ours), median(of_bare)}, 1.15);
    print_bound("rvkd at rest, resident memory", "the same", "MB",
                {resident_bytes(daemon.pid()) / 1e6, resident_bytes(bare.pid()) / 1e6}, 6);
}

} // namespace rvk::bench
