#include "raw_msg/send_read.h"

#include "eth_raw/frame.h"
#include "eth_raw/raw_sock.h"
#include "main/log.h"
#include "raw_msg/completion.h"
#include "raw_msg/filing.h"

namespace rvk {
namespace {

constexpr uint32_t request_bytes = request::payload + frame_data_min + checksum_bytes; // of a read's frame

// A request of another code would carry `len` bytes, and its buffer has room for a read's 64.
bool is_read(uint8_t code)
{
    if (code == code_read) { return true; }
    log_print(LOG_HERE, "read refused: frame code 0x%x is no read\n", code);
    return false;
}

uint8_t* request_buffer()
{
    uint8_t* buf = RawMsgBuffGet(frame_data_min);
    if (buf == nullptr) { log_print(LOG_HERE, "RawMsgBuffGet fail\n"); }
    return buf;
}

void set_destination(QNode* node, std::span<uint8_t> dest)
{
    node->dest = dest.data();
    node->dest_size = static_cast<uint32_t>(dest.size());
}

// The exchange of a read whose node is filed: buffer and node are gone when it returns.
int32_t exchange(uint16_t model, uint8_t slot, uint8_t code, uint32_t len, QNode* node, uint32_t* recv_len,
                 uint8_t* ack, uint32_t timeout_ticks) RVK_REQUIRES(write_read_ack_wait_mtx)
{
    uint8_t* buf = node->buf;
    const int index = node->index;
    const uint32_t addr = node->addr;
    const int32_t sent = RawSockMsgSend(index, model, slot, addr, code, node->seq, buf, len);
    if (sent <= 0) {
        take_back(READ_WAIT_QUEUE, node);
        RawMsgBuffFree(buf);
        log_print(LOG_HERE, "%s : send fail\n", "RawSockSendMsgWithReadWait");
        return sent;
    }
    timerStart(timeout_ticks, &node->timer);
    const answer got = await_answer(READ_WAIT_QUEUE, node);
    *recv_len = got.recv_len;
    *ack = got.ack;
    RawMsgBuffFree(buf);
    if (*recv_len >= 1 && *recv_len <= frame_data_max) { return 0; }
    log_print(
        LOG_HERE,
        "#######error read index:%d slot:%d model:%d addr:0x%x length:%d failed:*length=%d, timeout or ack error\n",
        index, slot, model, addr, static_cast<int>(len), static_cast<int>(*recv_len));
    return -1;
}

} // namespace

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
    uint8_t* buf = request_buffer();
    if (buf == nullptr) { return -1; }
    const uint16_t seq = take_number(&read_wait);
    QNode* node = make_node(index, addr, seq, buf, frame_data_min);
    if (node == nullptr) {
        RawMsgBuffFree(buf);
        log_print(LOG_HERE, "malloc node fail\n");
        return -1;
    }
    set_destination(node, dest);
    if (file_or_empty(READ_WAIT_QUEUE, node, "RawSockSendMsgWithReadWait") != 0) {
        RawMsgBuffFree(buf);
        free_node(node);
        return -1;
    }
    return exchange(model, slot, code, len, node, recv_len, ack, timeout_ticks);
}

int32_t RawSockSendMsgWithRead(uint32_t requester, int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                               uint32_t len, std::span<uint8_t> dest)
{
    if (!link_exists(index) || !is_read(code)) { return -1; }
    uint8_t* buf = request_buffer();
    if (buf == nullptr) { return -1; }
    const uint16_t seq = take_number(&read_ack);
    QNode* node = make_node(index, addr, seq, buf, request_bytes);
    if (node == nullptr) {
        RawMsgBuffFree(buf);
        return -1;
    }
    set_destination(node, dest);
    node->count = 1;
    node->requester = requester;
    node->state = phase::sending;
    if (file_or_empty(READ_QUEUE, node, __func__) != 0) {
        RawMsgBuffFree(buf);
        free_node(node);
        return -1;
    }
    timerStart(retry_ticks, &node->timer); // armed first: the answer may come before the send returns
    const int32_t sent = RawSockMsgSend(index, model, slot, addr, code, seq, buf, len);
    if (sent > 0) {
        settle(READ_QUEUE, node, ReadCompleteMsg);
        return 0;
    }
    take_back(READ_QUEUE, node);
    RawMsgBuffFree(buf);
    log_print(LOG_HERE, "%s : send fail\n", __func__);
    return sent;
}

} // namespace rvk
