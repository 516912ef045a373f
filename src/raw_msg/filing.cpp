#include "raw_msg/filing.h"

#include "base/pause.h"
#include "eth_raw/frame.h"
#include "eth_raw/raw_sock.h"
#include "main/log.h"
#include "mem/mem.h"
#include "raw_msg/link_lock.h"
#include "raw_msg/report.h"

#include <cerrno>
#include <cstring>
#include <new>

namespace rvk {

mutex write_read_ack_wait_mtx;
mutex write_ack_mtx, write_ack_wait_mtx, read_ack_mtx, read_wait_mtx;
sequence write_ack{write_ack_mtx, 0}, write_ack_wait{write_ack_wait_mtx, 0};
sequence read_ack{read_ack_mtx, 0}, read_wait{read_wait_mtx, 0};

namespace {

constexpr uint64_t full_retry_ms = 1;     // ours
constexpr uint64_t full_patience_ms = 10; // ours

const char* name_of(int queue)
{
    switch (queue) {
    case ACK_WAIT_QUEUE: return "ACK_WAIT_QUEUE";
    case READ_WAIT_QUEUE: return "READ_WAIT_QUEUE";
    default: return "READ_QUEUE";
    }
}

void wait_for(sem_t* sem)
{
    while (sem_wait(sem) != 0 && errno == EINTR) {}
}

void delete_node(int queue, QNode* node) RVK_REQUIRES(find_check_mtx[node->index])
{
    if (node->state == phase::unlinked) {
        mem_free(node);
    } else {
        static_cast<void>(queue_del(node->index, queue, &node)); // logs a count that went wrong
    }
}

// A request that disappeared with its queue: nobody else knows it any more.
void release_unlinked(int queue, QNode* node)
{
    RawMsgBuffFree(node->buf);
    if (queue == READ_QUEUE) { release_read_message(node); }
    mem_free(node);
}

} // namespace

uint16_t take_number(sequence* from)
{
    const scoped_lock hold(from->mtx);
    return from->seq++;
}

bool link_exists(int index)
{
    if (is_link(index)) { return true; }
    log_print(LOG_HERE, "index >= MAX_ETH\n");
    return false;
}

uint8_t* copy_piece(std::span<const uint8_t> piece)
{
    uint8_t* buf = RawMsgBuffGet(static_cast<unsigned>(piece.size()));
    if (buf == nullptr) {
        log_print(LOG_HERE, "RawMsgBuffGet fail\n");
        return nullptr;
    }
    if (!piece.empty()) { memcpy(buf, piece.data(), piece.size()); }
    return buf;
}

QNode* make_node(int index, uint32_t addr, uint16_t seq, uint8_t* buf, uint32_t send_len)
{
    void* block = mem_alloc(sizeof(QNode));
    if (block == nullptr) { return nullptr; }
    auto* node = new (block) QNode{};
    node->buf = buf;
    node->index = index;
    node->addr = addr;
    node->ack = no_answer;
    node->send_len = send_len;
    node->seq = seq;
    sem_init(&node->sem, 0, 0);
    return node;
}

void free_node(QNode* node) { mem_free(node); }

int32_t file_or_empty(int queue, QNode* node, const char* operation)
{
    const int index = node->index;
    if (queue_add(index, queue, node) == 0) { return 0; }
    log_print(LOG_HERE, "%s : queue_add %s fail\n", operation, name_of(queue));
    pause_ms(full_retry_ms);
    if (queue_add(index, queue, node) == 0) { return 0; }
    log_print(LOG_HERE, "queue_add fail again after 1ms, empty queue and send again\n");
    {
        const scoped_lock hold(find_check_mtx[index]);
        queue_empty(index, queue);
    }
    if (queue_add(index, queue, node) == 0) { return 0; }
    log_print(LOG_HERE, "assert queue_add fail again after empty queue\n");
    return -1;
}

void file_patiently(QNode* node)
{
    while (queue_add(node->index, ACK_QUEUE, node) != 0) { pause_ms(full_patience_ms); }
}

answer await_answer(int queue, QNode* node)
{
    wait_for(&node->sem);
    const scoped_lock hold(find_check_mtx[node->index]);
    const answer taken{static_cast<uint8_t>(node->ack), node->recv_len};
    delete_node(queue, node);
    return taken;
}

void take_back(int queue, QNode* node)
{
    const bool synchronous = queue == ACK_WAIT_QUEUE || queue == READ_WAIT_QUEUE;
    {
        const scoped_lock hold(find_check_mtx[node->index]);
        if (!synchronous || node->state != phase::answered) { return delete_node(queue, node); }
    }
    wait_for(&node->sem); // whoever ended the request posts it after releasing the lock: not before that may it go
    const scoped_lock hold(find_check_mtx[node->index]);
    delete_node(queue, node);
}

void settle(int queue, QNode* node, completion_handler handler)
{
    const scoped_lock hold(find_check_mtx[node->index]);
    if (node->state == phase::unlinked) { return release_unlinked(queue, node); }
    node->state = phase::pending;
    if (node->ack == no_answer) { return; }
    // A read's data was copied when the answer was noted; a write's has none, but the pointer says that it was
    // answered.
    const uint8_t* data = node->dest != nullptr ? node->dest : node->buf;
    handler(node, data, node->recv_len);
}

} // namespace rvk
