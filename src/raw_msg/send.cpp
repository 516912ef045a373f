#include "raw_msg/send.h"

#include "base/clock.h"
#include "eth_raw/link.h"
#include "main/log.h"
#include "mem/mem.h"
#include "raw_msg/link_threads.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace rvk {

fair_mutex write_read_ack_wait_mtx;
mutex write_ack_mtx, write_ack_wait_mtx, read_ack_mtx, read_wait_mtx;
sequence write_ack{write_ack_mtx, 0}, write_ack_wait{write_ack_wait_mtx, 0};
sequence read_ack{read_ack_mtx, 0}, read_wait{read_wait_mtx, 0};

namespace {

constexpr uint64_t full_retry_ms = 1, full_wait_ms = 10; // ours
constexpr uint16_t no_sequence = 0;                      // of plain writes: nothing answers

// What differs between the four kinds; indexed by queue.
struct kind {
    const char* operation;
    const char* queue_name; // null: its queue is never emptied when it is full
    sequence* numbers;
};
constexpr kind kinds[] = {
    {"RawSockSendOneMsgWithAck", nullptr, &write_ack},
    {"RawSockSendOneMsgWithAckWait", "ACK_WAIT_QUEUE", &write_ack_wait},
    {"RawSockSendMsgWithRead", "READ_QUEUE", &read_ack},
    {"RawSockSendMsgWithReadWait", "READ_WAIT_QUEUE", &read_wait},
};

// One request as its caller gave it.
struct request_fields {
    int queue;
    card_address card;
    uint8_t code;
    uint32_t timeout_ticks;
    uint32_t requester;                 // identity to report to; asynchronous requests only
    uint32_t len;                       // bytes to write, or asked for
    std::span<const uint8_t> data = {}; // of a write
    std::span<uint8_t> dest = {};       // of a read
};

struct answer {
    int32_t result; // 0: sent; the rest is the answer to a request that waited for it
    uint8_t ack = no_answer;
    uint32_t recv_len = 0; // bytes copied to the destination
};

uint16_t take_number(sequence* from)
{
    const scoped_lock hold(from->mtx);
    return from->seq++;
}

// A node that waits for its first answer, its frame packed in its buffer. Result: null when the pool has no memory.
QNode* make_request(const request_fields& r, unsigned* frame_bytes)
{
    uint8_t* buf = RawMsgBuffGet(reads(r.queue) ? frame_data_min : r.len);
    if (buf == nullptr) { return nullptr; }
    void* block = mem_alloc(sizeof(QNode));
    if (block == nullptr) {
        RawMsgBuffFree(buf);
        if (r.queue == READ_WAIT_QUEUE) { log_print(LOG_HERE, "malloc node fail\n"); }
        return nullptr;
    }
    if (!r.data.empty()) { memcpy(buf, r.data.data(), r.data.size()); }
    auto* node = new (block) QNode{};
    node->buf = buf;
    node->index = r.card.link;
    node->addr = r.card.addr;
    node->ack = no_answer;
    node->dest = r.dest.data();
    node->dest_size = static_cast<uint32_t>(r.dest.size());
    node->seq = take_number(kinds[r.queue].numbers);
    node->count = waits(r.queue) ? 0 : 1;
    node->requester = r.requester;
    node->being_sent = true;
    node->extra_references.store(1, std::memory_order_relaxed); // its sender and its queue
    const card_address& to = r.card;
    *frame_bytes = RawMsgHeaderPack(to.model, to.slot, r.code, to.addr, node->seq, &buf, static_cast<uint16_t>(r.len));
    node->send_len = *frame_bytes;
    if (r.queue == READ_WAIT_QUEUE) { node->send_len = frame_data_min; } // of the payload: such a read is not resent
    return node;
}

// Files a node. An asynchronous write waits while its queue is full; another queue that stays full for 1 ms is emptied.
bool file(int queue, QNode* node)
{
    const kind& k = kinds[queue];
    const int index = node->index;
    if (k.queue_name == nullptr) {
        while (queue_add(index, queue, node) != 0) { pause_ms(full_wait_ms); }
        return true;
    }
    if (queue_add(index, queue, node) == 0) { return true; }
    log_print(LOG_HERE, "%s : queue_add %s fail\n", k.operation, k.queue_name);
    pause_ms(full_retry_ms);
    if (queue_add(index, queue, node) == 0) { return true; }
    log_print(LOG_HERE, "queue_add fail again after 1ms, empty queue and send again\n");
    {
        const scoped_lock hold(find_check_mtx[index]);
        queue_empty(index, queue);
    }
    if (queue_add(index, queue, node) == 0) { return true; }
    log_print(LOG_HERE, "assert queue_add fail again after empty queue\n");
    return false;
}

enum class send_state { asked, dropped, unsent };

// Where a request stands when its first send is over. Its timer starts here: the time before was the sender's own.
send_state after_send(const request_fields& r, QNode* node, bool sent)
{
    const scoped_lock hold(find_check_mtx[node->index]);
    node->being_sent = false;
    if (node->end != outcome::nothing) { return send_state::asked; } // answered: so it was sent whatever the send says
    if (!node->filed) { return send_state::dropped; }
    if (sent) {
        timerStart(r.timeout_ticks, &node->timer);
        return send_state::asked;
    }
    static_cast<void>(queue_del(node->index, r.queue, &node)); // logs a wrong count; the sender holds the node
    return send_state::unsent;
}

answer exchange(const request_fields& r)
{
    unsigned frame_bytes = 0;
    QNode* node = make_request(r, &frame_bytes);
    if (node == nullptr) { return {-1}; }
    if (!file(r.queue, node)) {
        drop_reference(node);
        drop_request(node);
        return {-1};
    }
    const bool sent = send_packed(node->index, node->buf, frame_bytes, r.len) > 0;
    const send_state now = after_send(r, node, sent);
    answer got{now == send_state::asked ? 0 : -1};
    if (waits(r.queue) && now == send_state::asked) {
        node->sem.wait();
        got = {0, static_cast<uint8_t>(node->ack), node->recv_len};
    }
    drop_request(node);
    if (now == send_state::unsent) { log_print(LOG_HERE, "%s : send fail\n", kinds[r.queue].operation); }
    return got;
}

// There is no queue to file a request in where there is no link.
bool link_exists_or_logged(int index)
{
    if (is_link(index)) { return true; }
    log_print(LOG_HERE, "index >= MAX_ETH\n");
    return false;
}

// A request of another code would carry `len` bytes, and its buffer takes a read's 64.
bool is_read_or_logged(uint8_t code)
{
    if (code == code_read) { return true; }
    log_print(LOG_HERE, "read refused: frame code 0x%x is no read\n", code);
    return false;
}

std::span<const uint8_t> piece_at(std::span<const uint8_t> data, size_t at)
{
    return data.subspan(at, std::min(frame_data_max, data.size() - at));
}

} // namespace

int32_t RawSockSendMsg(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                       std::span<const uint8_t> data)
{
    return send_plain({index, model, slot, addr}, code, data) < 0 ? -1 : 0;
}

int32_t send_plain(const card_address& to, uint8_t code, std::span<const uint8_t> data, uint32_t step)
{
    if (data.empty()) { return 0; }
    // For all pieces: sendto has copied one when it returns.
    uint8_t* buf = RawMsgBuffGet(static_cast<unsigned>(std::min(frame_data_max, data.size())));
    if (buf == nullptr) { return -1; }
    int32_t unsent = 0;
    uint32_t addr = to.addr;
    for (size_t at = 0; at < data.size(); at += frame_data_max, addr += step) {
        const auto piece = piece_at(data, at);
        uint8_t* end = std::copy(piece.begin(), piece.end(), buf); // over the piece before it
        if (piece.size() < frame_data_min) { std::fill(end, buf + frame_data_min, uint8_t{0}); }
        const auto length = static_cast<unsigned>(piece.size());
        if (RawSockMsgSend(to.link, to.model, to.slot, addr, code, no_sequence, buf, length) < 1) {
            ++unsent;
            log_print(LOG_HERE, "#######error RawSockSendMsg : index:%d addr:0x%x length:%d send fail\n", to.link,
                      to.addr, static_cast<int>(step == 0 ? length : data.size())); // a stream's frame is by itself
        }
    }
    RawMsgBuffFree(buf);
    return unsent;
}

int32_t RawSockSendMsgWithAck(uint32_t requester, int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                              std::span<const uint8_t> data)
{
    int32_t result = 0;
    for (uint32_t at = 0; at < data.size() && result == 0; at += frame_data_max) {
        result = RawSockSendOneMsgWithAck(requester, index, model, slot, addr + at, code, piece_at(data, at));
    }
    return result;
}

int32_t RawSockSendOneMsgWithAck(uint32_t requester, int index, uint16_t model, uint8_t slot, uint32_t addr,
                                 uint8_t code, std::span<const uint8_t> data)
{
    if (!link_exists_or_logged(index)) { return -1; }
    const auto len = static_cast<uint32_t>(data.size());
    return exchange({ACK_QUEUE, {index, model, slot, addr}, code, retry_ticks, requester, len, data}).result;
}

int32_t RawSockSendMsgWithAckWait(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                                  std::span<const uint8_t> data, uint8_t* ack, uint32_t timeout_ticks)
{
    int32_t result = 0;
    for (uint32_t at = 0; at < data.size(); at += frame_data_max) {
        const auto piece = piece_at(data, at);
        *ack = no_answer;
        result = RawSockSendOneMsgWithAckWait(index, model, slot, addr + at, code, piece, ack, timeout_ticks);
        if (*ack != ack_good) {
            log_print(LOG_HERE, "write ack wait error: ack wrong index:%d model:%d slot:%d addr:0x%x len:%d ack:0x%x\n",
                      index, model, slot, addr + at, static_cast<int>(piece.size()), *ack);
        }
    }
    return result;
}

int32_t RawSockSendOneMsgWithAckWait(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                                     std::span<const uint8_t> data, uint8_t* ack, uint32_t timeout_ticks)
{
    if (!link_exists_or_logged(index)) { return -1; }
    const auto len = static_cast<uint32_t>(data.size());
    const scoped_lock hold(write_read_ack_wait_mtx);
    const answer got = exchange({ACK_WAIT_QUEUE, {index, model, slot, addr}, code, timeout_ticks, 0, len, data});
    if (got.result != 0) { return got.result; }
    *ack = got.ack;
    if (got.ack != no_answer) { return 0; }
    log_print(LOG_HERE, "ack failed, no ack\n");
    return -1;
}

int32_t RawSockSendMsgWithReadWait(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code, uint32_t len,
                                   std::span<uint8_t> dest, uint32_t* recv_len, uint32_t timeout_ticks, uint8_t* ack)
{
    *recv_len = 0;
    if (ack != nullptr) { *ack = no_answer; }
    if (!link_exists_or_logged(index) || !is_read_or_logged(code)) { return -1; }
    const scoped_lock hold(write_read_ack_wait_mtx);
    const answer got = exchange({READ_WAIT_QUEUE, {index, model, slot, addr}, code, timeout_ticks, 0, len, {}, dest});
    if (got.result != 0) { return got.result; }
    *recv_len = got.recv_len;
    if (ack != nullptr) { *ack = got.ack; }
    if (got.recv_len >= 1 && got.recv_len <= frame_data_max) { return 0; }
    log_print(
        LOG_HERE,
        "#######error read index:%d slot:%d model:%d addr:0x%x length:%d failed:*length=%d, timeout or ack error\n",
        index, slot, model, addr, static_cast<int>(len), static_cast<int>(got.recv_len));
    return -1;
}

int32_t RawSockSendMsgWithRead(uint32_t requester, int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                               uint32_t len, std::span<uint8_t> dest)
{
    if (!link_exists_or_logged(index) || !is_read_or_logged(code)) { return -1; }
    return exchange({READ_QUEUE, {index, model, slot, addr}, code, retry_ticks, requester, len, {}, dest}).result;
}

} // namespace rvk
