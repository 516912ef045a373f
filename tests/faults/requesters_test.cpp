// Requesters that are killed in the middle of a command, and others that never take an answer: what the rest of them
// wait does not change. RVK_FAULTS=all has 200 and 20 of them, and asserts that the 99th percentile at most doubles.
#include "faults/faulty_daemon.h"
#include "faults/load.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <random>

using namespace rvk;

namespace {

const char queue_limit[] = "/proc/sys/net/unix/max_dgram_qlen"; // of sockets made from then on; the bench's own
constexpr int usual_queue = 10;                                 // of a machine that nobody has set up
constexpr size_t at_a_time = 10;                                // requesters that live between two kills
constexpr int pace_ms = 25;                                     // from kill to kill

class Requesters : public FaultsTest {
protected:
    void TearDown() override
    {
        unruly.clear();
        deaf.clear();
        FaultsTest::TearDown();
    }

    static std::unique_ptr<child> start(const char* kind)
    {
        return std::make_unique<child>(std::vector<std::string>{program("unruly_requester"), kind});
    }

    void kill_one_after_the_other(size_t count)
    {
        std::mt19937 dice(count);
        for (size_t n = 0; n < count; ++n) {
            pause_ms(static_cast<uint64_t>(pace_ms / 2) + dice() % pace_ms);
            unruly[dice() % unruly.size()] = start("reads"); // whoever was there is killed
        }
    }

    std::vector<std::unique_ptr<child>> unruly, deaf;
};

} // namespace

TEST_F(Requesters, ThatAreKilledOrNeverReadKeepNobodyWaiting)
{
    const bool all = wants_all_faults();
    const size_t killed = all ? 200 : 60, that_never_read = 20;
    const load_options probe{.pause_us = 500, .reads_only = true};
    std::ofstream(queue_limit) << usual_queue << std::endl;
    for (size_t n = 0; n < at_a_time; ++n) { unruly.push_back(start("reads")); }
    pause_ms(300);
    load quiet(probe);
    pause_ms(killed * pace_ms);
    const load_figures before = quiet.stop();
    load disturbed(probe);
    for (size_t n = 0; n < that_never_read; ++n) { deaf.push_back(start("deaf")); }
    kill_one_after_the_other(killed);
    const load_figures during = disturbed.stop();
    std::printf("before: %s\nwith %zu killed and %zu that never read: %s\n", in_words(before).c_str(), killed,
                that_never_read, in_words(during).c_str());
    EXPECT_EQ(before.wrong + during.wrong, "");
    EXPECT_EQ(before.refused + during.refused, 0u);
    EXPECT_GE(during.us.size(), before.us.size() / 3); // each silent one costs its 20 ms once
    const uint32_t was = quantile(before.us, 0.99), is = quantile(during.us, 0.99);
    EXPECT_LE(is, all ? 2 * was : std::max(4 * was, 10'000u));
}
