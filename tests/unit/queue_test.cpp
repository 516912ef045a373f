// The pending queues against a plain list: whatever is filed, found, expired and deleted in whatever order, the oldest
// match wins and nothing else moves. Few sequence numbers, so that many nodes share one.
#include "mem/mem.h"
#include "queue/queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <new>
#include <random>

using namespace rvk;
using nodes = std::deque<QNode*>;

namespace {

constexpr int link = 2, queue = READ_QUEUE;
nodes handled;
void record(QNode* node, const uint8_t*, uint32_t) { handled.push_back(node); }

void file(nodes* model, uint32_t addr, uint16_t seq)
{
    model->push_back(new (mem_alloc(sizeof(QNode))) QNode{});
    model->back()->addr = addr;
    model->back()->seq = seq;
    model->back()->index = link;
    ASSERT_EQ(queue_add(link, queue, model->back()), 0);
}

void remove(nodes* model, size_t which)
{
    QNode* node = (*model)[which];
    std::erase(*model, node);
    ASSERT_EQ(queue_del(link, queue, &node), 0);
}

// Result: the nodes that shall have been handled.
nodes find_or_expire(nodes* model, bool finds, uint32_t addr, uint16_t seq)
{
    nodes expected;
    for (QNode* n : *model) {
        n->timer.expired = !finds && n->addr == addr; // as good as any choice
        if (n->addr == addr && (!finds || (n->seq == seq && expected.empty()))) { expected.push_back(n); }
    }
    if (!finds) { queue_check(link, queue, record); }
    if (finds) { queue_find(link, queue, addr, 9, seq, 77, record, nullptr); }
    for (const QNode* n : handled) { EXPECT_TRUE(!finds || (n->ack == 9 && n->recv_len == 77)); }
    return expected;
}

TEST(Queue, BehavesAsAPlainList)
{
    queue_init();
    std::mt19937 dice(20);
    const auto below = [&dice](size_t n) { return static_cast<uint32_t>(dice() % n); };
    nodes model;
    for (int i = 0; i < 60'000 && !HasFailure(); ++i) {
        const uint32_t what = below(8), addr = below(3);
        const auto seq = static_cast<uint16_t>(65'534 + below(4));
        handled.clear();
        if (what < 3) { file(&model, addr, seq); }
        if (what >= 3 && what < 5 && !model.empty()) { remove(&model, below(model.size())); }
        if (what >= 5) { ASSERT_EQ(find_or_expire(&model, what < 7, addr, seq), handled); }
        if (i % 5'000 == 4'999) { queue_empty(link, queue), model.clear(); }
        if (i % 16 != 0) { continue; }
        const scoped_lock hold(mtx[link][queue]);
        const QNode* node = queue_get(link, queue);
        for (const QNode* expected : model) { ASSERT_EQ(std::exchange(node, node->next), expected); }
        ASSERT_EQ(node, nullptr);
        ASSERT_EQ(Qcount[link][queue], static_cast<int32_t>(model.size()));
    }
    queue_empty(link, queue);
    EXPECT_EQ(mem_in_use(2) + mem_in_use(1), 0);
}

} // namespace
