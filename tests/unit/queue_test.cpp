// The pending queues against a plain list: whatever is filed, found, expired and deleted in whatever order, the oldest
// match wins and nothing else moves. Few sequence numbers, so that many nodes share one.
#include "mem/mem.h"
#include "queue/queue.h"
#include "support/log_capture.h"

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

QNode* file(uint32_t addr, uint16_t seq)
{
    auto* node = new (mem_alloc(sizeof(QNode))) QNode{};
    node->addr = addr;
    node->seq = seq;
    node->index = link;
    EXPECT_EQ(queue_add(link, queue, node), 0);
    return node;
}

nodes filed()
{
    const scoped_lock hold(mtx[link][queue]);
    nodes all;
    for (QNode* node = queue_get(link, queue); node != nullptr; node = node->next) { all.push_back(node); }
    EXPECT_EQ(Qcount[link][queue], static_cast<int32_t>(all.size()));
    return all;
}

// One random step, carried out on both; `dice(n)` is below n.
template <typename Dice>
void step(nodes* model, const Dice& dice)
{
    const uint32_t what = dice(8), addr = dice(3);
    const auto seq = static_cast<uint16_t>(65'534 + dice(4));
    nodes expected;
    handled.clear();
    if (what < 3) {
        model->push_back(file(addr, seq));
    } else if (what < 5 && !model->empty()) {
        QNode* node = (*model)[dice(model->size())];
        std::erase(*model, node);
        ASSERT_EQ(queue_del(link, queue, &node), 0);
    } else if (what < 7) {
        std::copy_if(model->begin(), model->end(), std::back_inserter(expected),
                     [=](const QNode* n) { return n->addr == addr && n->seq == seq; });
        expected.resize(std::min<size_t>(expected.size(), 1));
        queue_find(link, queue, addr, 9, seq, 77, record, nullptr);
        for (const QNode* n : handled) { ASSERT_TRUE(n->ack == 9 && n->recv_len == 77); }
    } else {
        for (QNode* n : *model) {
            n->timer.expired = dice(3) == 0;
            if (n->timer.expired != 0) { expected.push_back(n); }
        }
        queue_check(link, queue, record);
    }
    ASSERT_EQ(handled, expected);
}

TEST(Queue, BehavesAsAPlainList)
{
    queue_init();
    std::mt19937 random(20);
    nodes model;
    for (int i = 0; i < 60'000; ++i) {
        step(&model, [&random](size_t n) { return static_cast<uint32_t>(random() % n); });
        if (i % 10'000 == 9'999) { queue_empty(link, queue), model.clear(); }
        if (i % 16 == 0) { ASSERT_EQ(filed(), model); }
        if (HasFatalFailure()) { return; }
    }
    queue_empty(link, queue);
    EXPECT_EQ(mem_in_use(2) + mem_in_use(1), 0);
}

TEST(Queue, SaysWhenItsCountIsWrong)
{
    queue_init();
    take_log();
    QNode* node = file(1, 1);
    QNode other{};
    QNode* stranger = &other;
    EXPECT_EQ(queue_del(link, queue, &stranger), 0) << "nothing is removed, but the count is lowered";
    EXPECT_EQ(queue_del(link, queue, &node), -1);
    EXPECT_EQ(log_text(), "assert : del queue error -1\n");
    queue_init();
    uint8_t buf = 0;
    static_cast<void>(file(1, 1));
    file(1, 2)->buf = &buf;
    queue_del_buf(link, queue, &buf);
    EXPECT_EQ(Qcount[link][queue], 2) << "its count stays";
    EXPECT_EQ(Qlist[link][queue]->next, nullptr);
    queue_init();
}

} // namespace
