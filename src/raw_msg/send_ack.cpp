#include "raw_msg/send_ack.h"

#include "eth_raw/frame.h"
#include "eth_raw/raw_sock.h"
#include "main/log.h"
#include "raw_msg/completion.h"
#include "raw_msg/filing.h"

#include <algorithm>

namespace rvk {
namespace {

uint32_t frame_bytes(size_t len)
{
    return static_cast<uint32_t>(request::payload + std::max(len, frame_data_min) + checksum_bytes);
}

std::span<const uint8_t> piece_at(std::span<const uint8_t> data, size_t at)
{
    return data.subspan(at, std::min(frame_data_max, data.size() - at));
}

// The exchange of one piece whose node is filed: buffer and node are gone when it returns.
int32_t exchange(uint16_t model, uint8_t slot, uint8_t code, unsigned len, QNode* node, uint8_t* ack,
                 uint32_t timeout_ticks) RVK_REQUIRES(write_read_ack_wait_mtx)
{
    uint8_t* buf = node->buf;
    const int32_t sent = RawSockMsgSend(node->index, model, slot, node->addr, code, node->seq, buf, len);
    if (sent <= 0) {
        take_back(ACK_WAIT_QUEUE, node);
        RawMsgBuffFree(buf);
        log_print(LOG_HERE, "%s : send fail\n", "RawSockSendOneMsgWithAckWait");
        return sent;
    }
    timerStart(timeout_ticks, &node->timer);
    *ack = await_answer(ACK_WAIT_QUEUE, node).ack;
    RawMsgBuffFree(buf);
    if (*ack != no_answer) { return 0; }
    log_print(LOG_HERE, "ack failed, no ack\n");
    return -1;
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
    uint8_t* buf = copy_piece(data);
    if (buf == nullptr) { return -1; }
    const uint16_t seq = take_number(&write_ack);
    QNode* node = make_node(index, addr, seq, buf, frame_bytes(data.size()));
    if (node == nullptr) {
        RawMsgBuffFree(buf);
        return -1;
    }
    node->count = 1;
    node->requester = requester;
    node->state = phase::sending;
    file_patiently(node);
    timerStart(retry_ticks, &node->timer); // filed and armed first: the answer may come before the send returns
    const int32_t sent = RawSockMsgSend(index, model, slot, addr, code, seq, buf, static_cast<unsigned>(data.size()));
    if (sent > 0) {
        settle(ACK_QUEUE, node, AckCompleteMsg);
        return 0;
    }
    take_back(ACK_QUEUE, node);
    RawMsgBuffFree(buf);
    log_print(LOG_HERE, "%s : send fail\n", __func__);
    return sent;
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
    const scoped_lock hold(write_read_ack_wait_mtx);
    uint8_t* buf = copy_piece(data);
    if (buf == nullptr) { return -1; }
    const uint16_t seq = take_number(&write_ack_wait);
    QNode* node = make_node(index, addr, seq, buf, frame_bytes(data.size()));
    if (node == nullptr) {
        RawMsgBuffFree(buf);
        return -1;
    }
    if (file_or_empty(ACK_WAIT_QUEUE, node, __func__) != 0) {
        RawMsgBuffFree(buf);
        free_node(node);
        return -1;
    }
    return exchange(model, slot, code, static_cast<unsigned>(data.size()), node, ack, timeout_ticks);
}

} // namespace rvk
