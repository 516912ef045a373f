// A queue with sequence numbers that are equal, or share a slot of its index, beside a plain list.
#include "mem/mem.h"
#include "queue/queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <new>
#include <random>
#include <vector>

using namespace rvk;

TEST(Queue, FindsTheOldestOfItsNumberAndAddress)
{
    static QNode* found;
    std::vector<QNode*> pending;
    std::mt19937 dice(1);
    for (int i = 0; i < 20'000; ++i) {
        const uint32_t addr = dice() % 2;
        const auto seq = static_cast<uint16_t>(dice() % 2 + dice() % 2 * 1024);
        const auto oldest = std::ranges::find_if(pending, [&](auto n) { return n->addr == addr && n->seq == seq; });
        if (dice() % 2 == 0) {
            auto* node = new (mem_alloc(sizeof(QNode))) QNode{};
            node->addr = addr, node->seq = seq;
            ASSERT_EQ(queue_add(1, ACK_WAIT_QUEUE, node), 0);
            pending.push_back(node);
            continue;
        }
        found = nullptr;
        queue_find(
            1, ACK_WAIT_QUEUE, addr, 0, seq, 0, [](QNode* node, auto, auto) { found = node; }, nullptr);
        ASSERT_EQ(found, oldest == pending.end() ? nullptr : *oldest);
        if (found == nullptr) { continue; }
        ASSERT_EQ(queue_del(1, ACK_WAIT_QUEUE, &found), 0);
        pending.erase(oldest);
    }
    queue_empty(1, ACK_WAIT_QUEUE);
}
