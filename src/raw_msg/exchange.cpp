#include "raw_msg/exchange.h"

#include "base/pause.h"
#include "eth_raw/frame.h"
#include "eth_raw/link.h"
#include "main/log.h"
#include "mem/mem.h"
#include "queue/queue.h"
#include "raw_msg/completion.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace rvk {

fair_mutex write_read_ack_wait_mtx;
mutex write_ack_mtx, write_ack_wait_mtx, read_ack_mtx, read_wait_mtx;
sequence write_ack{write_ack_mtx, 0}, write_ack_wait{write_ack_wait_mtx, 0};
sequence read_ack{read_ack_mtx, 0}, read_wait{read_wait_mtx, 0};

namespace {

constexpr uint64_t full_retry_ms = 1;     // ours
constexpr uint64_t full_patience_ms = 10; // ours

// What tells the four kinds apart; by their queues' numbers.
struct kind {
    const char* operation;
    const char* queue_name; // null: its queue is never emptied to make room
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
    int queue, index;
    uint16_t model;
    uint8_t slot, code;
    uint32_t addr;
    std::span<const uint8_t> data; // of a write
    uint32_t len;                  // bytes to write, or asked for
    std::span<uint8_t> dest;       // of a read
    uint32_t requester;            // not waited for
    uint32_t timeout_ticks;
};

struct answer {
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
    const kind& k = kinds[r.queue];
    uint8_t* buf = RawMsgBuffGet(reads(r.queue) ? static_cast<unsigned>(frame_data_min) : r.len);
    if (buf == nullptr) {
        log_print(LOG_HERE, "RawMsgBuffGet fail\n");
        return nullptr;
    }
    void* block = mem_alloc(sizeof(QNode));
    if (block == nullptr) {
        RawMsgBuffFree(buf);
        if (r.queue == READ_WAIT_QUEUE) { log_print(LOG_HERE, "malloc node fail\n"); }
        return nullptr;
    }
    if (!r.data.empty()) { memcpy(buf, r.data.data(), r.data.size()); }
    auto* node = new (block) QNode{};
    node->buf = buf;
    node->index = r.index;
    node->addr = r.addr;
    node->ack = no_answer;
    node->dest = r.dest.data();
    node->dest_size = static_cast<uint32_t>(r.dest.size());
    node->seq = take_number(k.numbers);
    node->count = waits(r.queue) ? 0 : 1;
    node->requester = r.requester;
    node->being_sent = true;
    uint8_t* frame = buf;
    *frame_bytes = RawMsgHeaderPack(r.model, r.slot, r.code, r.addr, node->seq, &frame, static_cast<uint16_t>(r.len));
    node->send_len =
        r.queue == READ_WAIT_QUEUE ? static_cast<uint32_t>(frame_data_min) : *frame_bytes; // a waited read is sent once
    return node;
}

// Files a node; when its queue stays full for 1 ms, everything in that queue is dropped to make room.
bool file_or_empty(const kind& k, int queue, QNode* node)
{
    const int index = node->index;
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

bool file(int queue, QNode* node)
{
    const kind& k = kinds[queue];
    if (k.queue_name != nullptr) { return file_or_empty(k, queue, node); }
    while (queue_add(node->index, queue, node) != 0) { pause_ms(full_patience_ms); }
    return true;
}

enum class standing { pending, over, dropped, unsent };

// Where a request stands when its first send is over. Its timer starts here: the time before was the sender's own.
standing after_send(const request_fields& r, QNode* node, bool sent)
{
    const scoped_lock hold(find_check_mtx[r.index]);
    node->being_sent = false;
    if (node->end != outcome::nothing) { return standing::over; } // by an answer, so it was sent whatever the send says
    if (!node->filed) { return standing::dropped; }
    if (sent) {
        timerStart(r.timeout_ticks, &node->timer);
        return standing::pending;
    }
    QNode* filed = node;
    static_cast<void>(queue_del(r.index, r.queue, &filed)); // logs a count that went wrong; the sender holds it still
    return standing::unsent;
}

// got  out: the answer, of the kinds that wait; null: the others
int32_t exchange(const request_fields& r, answer* got)
{
    const kind& k = kinds[r.queue];
    unsigned frame_bytes = 0;
    QNode* node = make_request(r, &frame_bytes);
    if (node == nullptr) { return -1; }
    hold_node(node); // before others know it
    if (!file(r.queue, node)) {
        let_go_of_node(node);
        release(node);
        return -1;
    }
    const int32_t sent = send_packed(r.index, node->buf, frame_bytes, r.len);
    const standing now = after_send(r, node, sent > 0);
    if (got != nullptr && (now == standing::pending || now == standing::over)) {
        node->sem.wait();
        *got = {static_cast<uint8_t>(node->ack), node->recv_len};
    }
    release(node);
    if (now == standing::unsent) { log_print(LOG_HERE, "%s : send fail\n", k.operation); }
    return now == standing::unsent ? sent : now == standing::dropped ? -1 : 0;
}

// There is no queue to file a request in where there is no link.
bool link_exists(int index)
{
    if (is_link(index)) { return true; }
    log_print(LOG_HERE, "index >= MAX_ETH\n");
    return false;
}

// A request of another code would carry `len` bytes, and its buffer has room for a read's 64.
bool is_read(uint8_t code)
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

int32_t RawSockSendMsgWithAck(uint32_t requester, int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                              std::span<const uint8_t> data)
{
    for (size_t at = 0; at < data.size(); at += frame_data_max) {
        const auto piece_addr = static_cast<uint32_t>(addr + at);
        const int32_t result =
            RawSockSendOneMsgWithAck(requester, index, model, slot, piece_addr, code, piece_at(data, at));
        if (result != 0) { return result; }
    }
    return 0;
}

int32_t RawSockSendOneMsgWithAck(uint32_t requester, int index, uint16_t model, uint8_t slot, uint32_t addr,
                                 uint8_t code, std::span<const uint8_t> data)
{
    if (!link_exists(index)) { return -1; }
    const auto len = static_cast<uint32_t>(data.size());
    return exchange({ACK_QUEUE, index, model, slot, code, addr, data, len, {}, requester, retry_ticks}, nullptr);
}

int32_t RawSockSendMsgWithAckWait(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                                  std::span<const uint8_t> data, uint8_t* ack, uint32_t timeout_ticks)
{
    int32_t result = 0;
    for (size_t at = 0; at < data.size(); at += frame_data_max) {
        const auto piece = piece_at(data, at);
        const auto piece_addr = static_cast<uint32_t>(addr + at);
        *ack = no_answer;
        result = RawSockSendOneMsgWithAckWait(index, model, slot, piece_addr, code, piece, ack, timeout_ticks);
        if (*ack != ack_good) {
            log_print(LOG_HERE, "write ack wait error: ack wrong index:%d model:%d slot:%d addr:0x%x len:%d ack:0x%x\n",
                      index, model, slot, piece_addr, static_cast<int>(piece.size()), *ack);
        }
    }
    return result;
}

int32_t RawSockSendOneMsgWithAckWait(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                                     std::span<const uint8_t> data, uint8_t* ack, uint32_t timeout_ticks)
{
    if (!link_exists(index)) { return -1; }
    const auto len = static_cast<uint32_t>(data.size());
    const scoped_lock hold(write_read_ack_wait_mtx);
    answer got;
    const int32_t result =
        exchange({ACK_WAIT_QUEUE, index, model, slot, code, addr, data, len, {}, 0, timeout_ticks}, &got);
    if (result != 0) { return result; }
    *ack = got.ack;
    if (got.ack != no_answer) { return 0; }
    log_print(LOG_HERE, "ack failed, no ack\n");
    return -1;
}

int32_t RawSockSendMsgWithReadWait(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code, uint32_t len,
                                   std::span<uint8_t> dest, uint32_t* recv_len, uint32_t timeout_ticks)
{
    uint8_t ack = no_answer;
    return read_and_wait(index, model, slot, addr, code, len, dest, recv_len, &ack, timeout_ticks);
}

int32_t read_and_wait(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code, uint32_t len,
                      std::span<uint8_t> dest, uint32_t* recv_len, uint8_t* ack, uint32_t timeout_ticks)
{
    *recv_len = 0;
    *ack = no_answer;
    if (!link_exists(index) || !is_read(code)) { return -1; }
    const scoped_lock hold(write_read_ack_wait_mtx);
    answer got;
    const int32_t result =
        exchange({READ_WAIT_QUEUE, index, model, slot, code, addr, {}, len, dest, 0, timeout_ticks}, &got);
    if (result != 0) { return result; }
    *recv_len = got.recv_len;
    *ack = got.ack;
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
    if (!link_exists(index) || !is_read(code)) { return -1; }
    return exchange({READ_QUEUE, index, model, slot, code, addr, {}, len, dest, requester, retry_ticks}, nullptr);
}

} // namespace rvk
