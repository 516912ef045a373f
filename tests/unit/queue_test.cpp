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

namespace {

constexpr int link = 2, queue = READ_QUEUE;
std::deque<QNode*> handled;
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

void expect_same(const std::deque<QNode*>& model)
{
    const scoped_lock hold(mtx[link][queue]);
    const QNode* node = queue_get(link, queue);
    for (const QNode* expected : model) {
        ASSERT_EQ(node, expected);
        node = node->next;
    }
    ASSERT_EQ(node, nullptr);
    ASSERT_EQ(Qcount[link][queue], static_cast<int32_t>(model.size()));
}

auto oldest_match(const std::deque<QNode*>& model, uint32_t addr, uint16_t seq)
{
    return std::find_if(model.begin(), model.end(), [=](const QNode* n) { return n->addr == addr && n->seq == seq; });
}

TEST(Queue, BehavesAsAPlainList)
{
    queue_init();
    std::mt19937 random(20);
    const auto below = [&random](size_t n) { return static_cast<uint32_t>(random() % n); };
    std::deque<QNode*> model;
    for (int i = 0; i < 60'000; ++i) {
        const uint32_t addr = below(3);
        const auto seq = static_cast<uint16_t>(65'534 + below(4));
        handled.clear();
        const uint32_t what = below(8);
        if (what < 3) {
            model.push_back(file(addr, seq));
        } else if (what < 5 && !model.empty()) {
            const auto gone = model.begin() + static_cast<int>(below(model.size()));
            QNode* node = *gone;
            model.erase(gone);
            ASSERT_EQ(queue_del(link, queue, &node), 0);
        } else if (what < 7) {
            const auto oldest = oldest_match(model, addr, seq);
            queue_find(link, queue, addr, 9, seq, 77, record, nullptr);
            ASSERT_EQ(handled.size(), oldest != model.end() ? 1u : 0u);
            if (oldest == model.end()) { continue; }
            ASSERT_EQ(handled[0], *oldest);
            ASSERT_EQ(handled[0]->ack, 9);
            ASSERT_EQ(handled[0]->recv_len, 77u);
        } else {
            std::deque<QNode*> expired;
            for (QNode* n : model) {
                if (below(3) == 0) { n->timer.expired = 1, expired.push_back(n); }
            }
            queue_check(link, queue, record);
            ASSERT_EQ(handled, expired);
        }
        if (i % 10'000 == 9'999) { queue_empty(link, queue), model.clear(); }
        if (i % 16 == 0) { expect_same(model); }
    }
    queue_empty(link, queue);
    EXPECT_EQ(mem_in_use(2) + mem_in_use(1), 0);
}

TEST(Queue, SaysWhenItsCountIsWrong)
{
    queue_init();
    take_log();
    QNode* filed = file(1, 1);
    QNode other{};
    QNode* stranger = &other;
    EXPECT_EQ(queue_del(link, queue, &stranger), 0) << "nothing is removed, but the count is lowered";
    EXPECT_EQ(queue_del(link, queue, &filed), -1);
    EXPECT_EQ(logged("assert : del queue error -1\n"), 1u);
    queue_init();
    static_cast<void>(file(1, 1));
    Qcount[link][queue] = 0;
    queue_empty(link, queue);
    EXPECT_EQ(logged("assert : empty queue error \n"), 1u);
    queue_init();
    uint8_t buf = 0;
    static_cast<void>(file(1, 1));
    file(1, 2)->buf = &buf;
    queue_del_buf(link, queue, &buf);
    EXPECT_EQ(Qcount[link][queue], 2) << "its count stays";
    EXPECT_EQ(Qlist[link][queue]->next, nullptr);
    queue_empty(link, queue);
    queue_init();
}

} // namespace
