// Ticks become expiries: one row per rule, on a node whose expiries a recorder counts.
#include "mem/mem.h"
#include "queue/queue.h"
#include "raw_msg/filing.h"
#include "sim/outside.h"
#include "timer/aging.h"
#include "timer/timer.h"

#include <gtest/gtest.h>

#include <vector>

using namespace rvk;

namespace {

struct aging_case {
    const char* name;
    uint32_t armed;
    std::vector<int32_t> passes; // ticks handed out in each aging pass
    std::vector<int> expired;    // what is read behind each
    int32_t remaining;           // at the end
};
const aging_case cases[] = {
    {"every three ticks", 3, {1, 1, 1, 1, 1, 1, 1}, {0, 0, 1, 0, 0, 1, 0}, 2},
    {"a pass without ticks changes nothing", 3, {2, 0, 0}, {0, 0, 0}, 1},
    {"one expiry for many ticks, and the whole period again", 3, {2, 10, 2, 1}, {0, 1, 0, 1}, 3},
    {"ticks are 16 bits: 70,000 are 4,464", 70'000, {4463, 1}, {0, 1}, 4464},
    {"0 leaves it stopped", 0, {5, 5}, {0, 0}, 0},
    {"so does 65,536", 65'536, {5, 5}, {0, 0}, 0},
};

TEST(Timer, TurnsTicksIntoExpiries)
{
    for (const aging_case& c : cases) {
        SCOPED_TRACE(c.name);
        for (const int queue : {0, queue_numbers - 1}) { // every queue is aged
            reset_outside();
            QNode* node = make_node(0, 1, 1, nullptr, 94);
            ASSERT_EQ(queue_add(0, queue, node), 0);
            timerStart(c.armed, &node->timer);
            for (size_t i = 0; i < c.passes.size(); ++i) {
                elapsed = c.passes[i];
                timerUpdate(0, queue_numbers);
                EXPECT_EQ(elapsed, 0);
                EXPECT_EQ(timerExpired(&node->timer), c.expired[i]) << i;
            }
            EXPECT_EQ(node->timer.remaining, c.remaining);
            queue_del(0, queue, &node);
        }
    }
}

TEST(Timer, AStopKeepsWhatIsFlaggedAndAStartClearsIt)
{
    reset_outside();
    QNode* node = make_node(0, 1, 1, nullptr, 94);
    ASSERT_EQ(queue_add(0, ACK_QUEUE, node), 0);
    timerStart(2, &node->timer);
    elapsed = 2;
    timerUpdate(0, queue_numbers);
    timerStop(&node->timer);
    elapsed = 9;
    timerUpdate(0, queue_numbers);
    EXPECT_EQ(timerExpired(&node->timer), 1);
    EXPECT_EQ(timerExpired(&node->timer), 0);
    timerStart(2, &node->timer);
    elapsed = 2;
    timerUpdate(0, queue_numbers);
    timerStart(2, &node->timer);
    EXPECT_EQ(timerExpired(&node->timer), 0);
    queue_del(0, ACK_QUEUE, &node);
}

// An expiry that nobody looked at between two runs of the timer is one, and counts once.
TEST(Timer, AnExpiryIsAFlagAndCountsOnce)
{
    reset_outside();
    QNode* node = make_node(0, 1, 1, nullptr, 94);
    ASSERT_EQ(queue_add(0, ACK_QUEUE, node), 0);
    timerStart(3, &node->timer);
    for (int i = 0; i < 2; ++i) {
        elapsed = 3;
        timerUpdate(0, queue_numbers);
    }
    static int calls;
    calls = 0;
    const auto count = [](QNode*, const uint8_t* data, uint32_t) { calls += data == nullptr ? 1 : 100; };
    for (int i = 0; i < 2; ++i) { queue_check(0, ACK_QUEUE, count); }
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(node->count, 1u);
    queue_del(0, ACK_QUEUE, &node);
}

} // namespace
