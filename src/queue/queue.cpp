#include "queue/queue.h"

#include "base/clock.h"
#include "base/counters.h"
#include "main/log.h"
#include "mem/mem.h"

#include <algorithm>
#include <atomic>
#include <utility>

namespace rvk {

mutex mtx[MAX_ETH][queue_numbers];
QNode* Qlist[MAX_ETH][queue_numbers];
int32_t Qcount[MAX_ETH][queue_numbers];
mutex mutex_find;
mutex mutex_check;

namespace {

QNode* Qtail[MAX_ETH][queue_numbers];

// The index: for each slot the oldest node whose sequence number falls on it, the others chained by same_slot; nearly
// always there is one. The queues of waiting senders, which are few, use 1,024 slots. Of the others the whole index is
// written when the first node is filed, so that resident memory does not grow as the numbers go up.
constexpr size_t slots = 65'536, waiting_slots = 1024; // ours
QNode* oldest[MAX_ETH][queue_numbers][slots];
bool has_pages[MAX_ETH][queue_numbers];

QNode** slot_of(int index, int queue, uint16_t seq)
{
    return &oldest[index][queue][seq % (waits(queue) ? waiting_slots : slots)];
}

void take_pages(int index, int queue) RVK_REQUIRES(mtx[index][queue])
{
    if (std::exchange(has_pages[index][queue], true) || waits(queue)) { return; }
    std::fill_n(static_cast<QNode* volatile*>(oldest[index][queue]), slots, nullptr);
}

// Result: the pointer to the node; the null pointer at the slot's end when it is not in it.
QNode** pointer_to(QNode** slot, const QNode* node)
{
    while (*slot != nullptr && *slot != node) { slot = &(*slot)->same_slot; }
    return slot;
}

// Atomic for queue_length(), which looks without the mutex.
int32_t change_count(int index, int queue, int32_t by) RVK_REQUIRES(mtx[index][queue])
{
    const int32_t count = Qcount[index][queue] + by;
    std::atomic_ref(Qcount[index][queue]).store(count, std::memory_order_relaxed);
    return count;
}

// Result: false when the node is not filed here.
bool unlink(int index, int queue, QNode* node) RVK_REQUIRES(mtx[index][queue])
{
    QNode** const indexed = pointer_to(slot_of(index, queue, node->seq), node);
    if (*indexed == nullptr) { return false; }
    *indexed = node->same_slot;
    (node->prev == nullptr ? Qlist[index][queue] : node->prev->next) = node->next;
    (node->next == nullptr ? Qtail[index][queue] : node->next->prev) = node->prev;
    node->filed = false;
    return true;
}

void link_tail(int index, int queue, QNode* node) RVK_REQUIRES(mtx[index][queue])
{
    node->next = nullptr;
    node->prev = Qtail[index][queue];
    (node->prev == nullptr ? Qlist[index][queue] : node->prev->next) = node;
    Qtail[index][queue] = node;
    node->filed = true;
    node->same_slot = nullptr;
    *pointer_to(slot_of(index, queue, node->seq), node) = node;
}

// Result: the old head; the nodes stay chained by `next`.
QNode* detach_all(int index, int queue)
{
    const scoped_lock hold(mtx[index][queue]);
    QNode* head = Qlist[index][queue];
    for (QNode* node = head; node != nullptr; node = node->next) {
        *slot_of(index, queue, node->seq) = nullptr;
        node->filed = false;
        if (change_count(index, queue, -1) < 0) { log_print(LOG_HERE, "assert : empty queue error \n"); }
    }
    Qlist[index][queue] = nullptr;
    Qtail[index][queue] = nullptr;
    return head;
}

} // namespace

void queue_init()
{
    for (int index = 0; index < MAX_ETH; ++index) {
        for (int queue = 0; queue < queue_numbers; ++queue) {
            static_cast<void>(detach_all(index, queue)); // nodes filed before are not given back
            const scoped_lock hold(mtx[index][queue]);
            change_count(index, queue, -Qcount[index][queue]);
        }
    }
}

int32_t queue_add(int index, int queue, QNode* node)
{
    {
        const scoped_lock hold(mtx[index][queue]);
        take_pages(index, queue);
        if (Qcount[index][queue] < queue_nodes_max) {
            node->asked_us = monotonic_us();
            link_tail(index, queue, node);
            change_count(index, queue, 1);
            return 0;
        }
    }
    log_print(LOG_HERE, "queue is full\n");
    return -1;
}

int32_t queue_find(int index, int queue, uint32_t addr, uint8_t ack, uint16_t seq, uint32_t recv_len,
                   completion_handler handler, const uint8_t* data)
{
    QNode* node = nullptr;
    {
        const scoped_lock hold(mtx[index][queue]);
        node = *slot_of(index, queue, seq);
        while (node != nullptr && (node->seq != seq || node->addr != addr)) { node = node->same_slot; }
    }
    if (node == nullptr) { return 0; }
    link_count[index].count_answer(monotonic_us() - node->asked_us);
    const scoped_lock hold(mutex_find);
    node->ack = ack;
    node->recv_len = recv_len;
    handler(node, data, recv_len);
    return 0;
}

int32_t queue_check(int index, int queue, completion_handler handler)
{
    QNode* next = nullptr; // the oldest of the expired nodes
    {
        QNode** end = &next;
        size_t n = 0;
        const scoped_lock hold(mtx[index][queue]);
        for (QNode* node = Qlist[index][queue]; node != nullptr && n < expired_max; node = node->next) {
            if (timerExpired(&node->timer) == 0 || node->being_sent) { continue; }
            *end = node;
            end = &node->next_expired;
            ++n;
        }
        *end = nullptr;
    }
    const scoped_lock hold(mutex_check);
    while (QNode* node = next) {
        next = node->next_expired;
        ++node->count;
        handler(node, nullptr, 0);
    }
    return 0;
}

void timerUpdate(int index, int queues)
{
    const int32_t ticks = elapsed.exchange(0);
    if (ticks <= 0) { return; }
    for (int queue = 0; queue < queues; ++queue) {
        const scoped_lock hold(mtx[index][queue]);
        for (QNode* node = queue_get(index, queue); node != nullptr; node = node->next) {
            Timer* timer = &node->timer;
            const int32_t period = timer->period;
            if (period <= 0) { continue; }
            const int32_t left = timer->remaining - ticks;
            timer->remaining = left > 0 ? left : period;
            if (left <= 0) { timer->expired = 1; }
        }
    }
}

int32_t queue_del(int index, int queue, QNode** handle)
{
    bool filed = false;
    int32_t count = 0;
    {
        const scoped_lock hold(mtx[index][queue]);
        filed = unlink(index, queue, *handle);
        count = change_count(index, queue, -1);
    }
    if (filed) { drop_reference(*handle); }
    if (count >= 0) { return 0; }
    log_print(LOG_HERE, "assert : del queue error -1\n");
    return -1;
}

void queue_empty(int index, int queue)
{
    QNode* next = detach_all(index, queue);
    while (QNode* node = next) {
        next = node->next;
        drop_reference(node);
    }
}

void queue_del_buf(int index, int queue, const uint8_t* buf)
{
    QNode* node = nullptr;
    {
        const scoped_lock hold(mtx[index][queue]);
        node = Qlist[index][queue];
        while (node != nullptr && node->buf != buf) { node = node->next; }
        if (node != nullptr) { unlink(index, queue, node); }
    }
    if (node != nullptr) { drop_reference(node); }
}

bool drop_reference(QNode* node)
{
    if (node->extra_references.fetch_sub(1, std::memory_order_acq_rel) != 0) { return false; }
    mem_free(node);
    return true;
}

} // namespace rvk
