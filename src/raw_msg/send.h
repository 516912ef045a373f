// raw_msg, the transport: requests to the cards and their answers. It knows nothing of messages. This header: the send
// operations. A plain write is not answered and not tracked. All other kinds are one exchange with one table of what
// differs: take a buffer, a node and a number, pack the frame, file the node, send, then wait or leave the node to the
// link's threads (link_threads.h). One that waits holds write_read_ack_wait_mtx throughout, so there is one at a time
// in the process, and sends each frame once. index, model, slot, addr: link (0 to 2) and card address of the first
// byte. Data longer than 1,400 bytes is cut into pieces; piece i goes to addr + 1,400 i. Without data nothing is sent:
// the result is 0, or -1 of an operation for one piece. timeout_ticks: ticks of 30 ms, 1 to 65,535; a request fails
// after three such periods without an answer. Threads: any but a link's own two, which would wait for themselves.
#pragma once

#include "base/mutex.h"
#include "eth_raw/frame.h"

#include <cstdint>
#include <span>

namespace rvk {

// Every synchronous exchange of the process, one at a time, from taking its buffer to letting go of its node.
extern fair_mutex write_read_ack_wait_mtx;

// The next sequence number of each kind, wrapping from 65,535 to 0, and the mutex under which one is taken.
struct sequence {
    mutex& mtx;
    uint16_t seq RVK_GUARDED_BY(mtx);
};
extern mutex write_ack_mtx, write_ack_wait_mtx, read_ack_mtx, read_wait_mtx;
extern sequence write_ack, write_ack_wait, read_ack, read_wait;

// Plain write. Result: 0, also when a frame could not be sent (logged; the others still go out); -1: no buffer left.
int32_t RawSockSendMsg(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                       std::span<const uint8_t> data);

// The same, piece i to addr + i steps. Result: frames that could not be sent; -1: no frame buffer left.
[[nodiscard]] int32_t send_plain(const card_address& to, uint8_t code, std::span<const uint8_t> data,
                                 uint32_t step = frame_data_max);

// Writes without waiting. A piece that the card then does not acknowledge in three sends, or refuses 200 times, is
// reported to `requester`. Only while 65,535 writes are pending it waits, until there are fewer.
// Result  0 when every piece was sent; else the first failing piece's, and the rest is not sent
// The second takes one piece, 1 to 1,400 bytes.
[[nodiscard]] int32_t RawSockSendMsgWithAck(uint32_t requester, int index, uint16_t model, uint8_t slot, uint32_t addr,
                                            uint8_t code, std::span<const uint8_t> data);
[[nodiscard]] int32_t RawSockSendOneMsgWithAck(uint32_t requester, int index, uint16_t model, uint8_t slot,
                                               uint32_t addr, uint8_t code, std::span<const uint8_t> data);

// Writes and waits for the card, piece by piece.
// ack     out: the last piece's status: 0 good, 255 none came, other: the card's refusal; unchanged without data
// Result  of the last piece; a failure of an earlier one is only logged
[[nodiscard]] int32_t RawSockSendMsgWithAckWait(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                                                std::span<const uint8_t> data, uint8_t* ack, uint32_t timeout_ticks);

// One piece of it. Result: 0 when an answer came, good or not; -1: none came, or (`ack` unchanged) it was not filed or
// sent.
[[nodiscard]] int32_t RawSockSendOneMsgWithAckWait(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                                                   std::span<const uint8_t> data, uint8_t* ack, uint32_t timeout_ticks);

// Reads and waits for the data.
// len       bytes asked for, 1 to 1,400
// dest      receives the data and bounds it: nothing is written past it
// recv_len  out: bytes copied, 0 when none came; above 1,400: what an answer that is too long had, and none are copied
// ack       out, where it is asked for: 0 good, 255 none came, other: the card's refusal
// Result    0 when 1 to 1,400 bytes of data came; -1 otherwise
[[nodiscard]] int32_t RawSockSendMsgWithReadWait(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                                                 uint32_t len, std::span<uint8_t> dest, uint32_t* recv_len,
                                                 uint32_t timeout_ticks, uint8_t* ack = nullptr);

// Reads without waiting: data or failure is reported to `requester`. Nothing in the daemon calls it.
// dest    the payload area of ap_msg's message buffer; with a result of 0 it is request_ended that gives it back
// Result  0 when the request was sent; -1 otherwise, or when it was dropped with its queue meanwhile
[[nodiscard]] int32_t RawSockSendMsgWithRead(uint32_t requester, int index, uint16_t model, uint8_t slot, uint32_t addr,
                                             uint8_t code, uint32_t len, std::span<uint8_t> dest);

} // namespace rvk
