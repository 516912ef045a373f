// The idle daemon: the processor time of the real rvkd beside that of a bare process with its two clocks, and its
// resident memory. Each is alone while it is measured: of two that tick side by side, the one that wakes behind the
// other finds a processor that is awake, and half the time is that.
#include "base/clock.h"
#include "cables.h"
#include "harness.h"
#include "processes.h"
#include "rows.h"

#include <cerrno>
#include <csignal>
#include <ctime>
#include <sys/time.h>

namespace rvk::bench {
namespace {

constexpr uint64_t settle_ms = 100, window_ms = 1000;
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

// Of a process that is stopped before and after.
double microseconds_per_second(const child& process)
{
    process.go_on();
    pause_ms(settle_ms);
    const double before = processor_time_ns(process.pid());
    pause_ms(window_ms);
    const double used = processor_time_ns(process.pid()) - before;
    process.stop();
    return used / static_cast<double>(window_ms);
}

} // namespace

void idle_row(const settings& chosen)
{
    const child bare(tick_and_sleep); // before the cards, whose pictures a child would have too
    bare.stop();
    const simulated_cards cards(card_priority);
    const child daemon = start_daemon(cards);
    daemon.stop();
    const auto found = compare(
        chosen.rounds, [&] { return microseconds_per_second(daemon); }, [&] { return microseconds_per_second(bare); });
    daemon.go_on();
    print_ratio("rvkd at rest, processor time", "a process with a 30 ms tick and a 10 ms sleep loop", "µs per second",
                found, 1.15);
    print_bound("rvkd at rest, resident memory", "the same", "MB",
                {resident_bytes(daemon.pid()) / 1e6, resident_bytes(bare.pid()) / 1e6}, 6);
}

} // namespace rvk::bench
