// The link goes down and up, at either end, while requesters ask: each command is answered once, with data or -1, and
// afterwards all works. RVK_FAULTS=all: 100 times in a minute.
#include "faults/faulty_daemon.h"
#include "faults/load.h"

#include <gtest/gtest.h>

#include <cstdlib>

using namespace rvk;

namespace {

constexpr uint64_t half_period_ms = 300;
constexpr size_t requesters = 4;

void set_link(const char* interface, const char* state)
{
    const std::string line = std::string("ip link set ") + interface + " " + state;
    ASSERT_EQ(std::system(line.c_str()), 0) << line;
}

class LinkFlaps : public FaultsTest {};

} // namespace

TEST_F(LinkFlaps, LoseNoCommandAndLeaveNothingBehind)
{
    const int flaps = wants_all_faults() ? 100 : 10;
    const std::string before = proc_field(std::to_string(d->pid()), "status", "VmRSS");
    load asking({.requesters = requesters, .pause_us = 500});
    for (int n = 0; n < flaps; ++n) {
        const char* const interface = n % 2 == 0 ? "eth0" : "card0";
        set_link(interface, "down");
        pause_ms(half_period_ms);
        set_link(interface, "up");
        pause_ms(half_period_ms);
    }
    // The kernel tells of a carrier up to a second late.
    EXPECT_TRUE(comes_true([&] { return fault_in_service().empty(); }));
    const load_figures figures = asking.stop();
    const std::string after = proc_field(std::to_string(d->pid()), "status", "VmRSS");
    std::printf("%d flaps: %s; resident %s before, %s after\n", flaps, in_words(figures).c_str(), before.c_str(),
                after.c_str());
    EXPECT_EQ(figures.wrong, "");
    EXPECT_EQ(figures.asked, figures.good + figures.refused);
    EXPECT_GT(figures.good, 100u);
    EXPECT_GT(figures.refused, 10u) << "no command was asked while the link was down";
}
