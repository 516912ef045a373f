// The daemon as a whole, the real rvkd: from its start to the first picture that plays, and the memory that a picture
// takes, and gives back.
#include "ap_msg/message.h"
#include "asking.h"
#include "base/clock.h"
#include "cables.h"
#include "demo/demo.h"
#include "harness.h"
#include "picture_job.h"
#include "processes.h"
#include "rows.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

namespace rvk::bench {
namespace {

constexpr int starts_max = 3; // six seconds each
constexpr double asked_pauses_s = 5.5, goal_s = asked_pauses_s + 0.5;
constexpr uint64_t untouched_ms = 5000, look_ms = 5;
constexpr int looks_max = 6000;
constexpr char first_picture[] = "/usr/kup/etc/demo/demo_1";
constexpr uint32_t buffer = 1;
constexpr uint64_t calm_ms = 1000; // the time that the daemon has to be small again

// Its cards answer the readiness reads at once.
double seconds_to_playing()
{
    const simulated_cards cards(card_priority);
    const auto begin = std::chrono::steady_clock::now();
    const child daemon = launch_daemon();
    pause_ms(untouched_ms); // every look holds up the cards
    for (int looks = 0; !cards.demo_plays(); ++looks) {
        if (looks == looks_max) { fail("rvkd's demo does not play"); }
        pause_ms(look_ms);
    }
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
    return taken.count();
}

} // namespace

void start_row(const settings& chosen)
{
    make_file(first_picture, patterned_bytes(demo_picture_bytes));
    std::vector<double> seconds;
    for (int i = std::min(starts_max, chosen.rounds); i > 0; --i) { seconds.push_back(seconds_to_playing()); }
    std::filesystem::remove(first_picture);
    print_bound("rvkd from its start to the first picture playing, cards ready at once",
                "the pauses that the sequence asks for", "s", {median(seconds), asked_pauses_s}, goal_s);
}

void memory_row(const settings&)
{
    simulated_cards cards(card_priority);
    const child daemon = start_daemon(cards);
    const picture_job job({demo_hor, demo_ver}, buffer);
    asking_process asker;
    const double idle = resident_bytes(daemon.pid());
    forget_peak(daemon.pid());
    asker.exchange(own_identity(), job.command(), 0);
    const double peak = peak_bytes(daemon.pid());
    pause_ms(calm_ms);
    const double after = resident_bytes(daemon.pid());
    if (cards.picture(buffer) != job.bytes()) { fail("the cards hold another picture than the file"); }
    const double picture = static_cast<double>(job.bytes().size());
    print_ratio("rvkd's most memory during a 3840 × 2160 picture, after the demo", "the picture and the idle daemon",
                "MB", {peak / 1e6, (picture + idle) / 1e6}, 1.12);
    print_ratio("rvkd's memory a second after that picture", "the idle daemon before it", "MB",
                {after / 1e6, idle / 1e6}, 1.05);
}

} // namespace rvk::bench
