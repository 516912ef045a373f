// Reads: synchronous, and asynchronous with the data reported to a requester later.
//
// index, model, slot, addr: link (0 to 2) and card address of the first byte.
#pragma once

#include <cstdint>
#include <span>

namespace rvk {

// Reads from a card and waits for the data.
// len            bytes asked for, at most 1,400
// dest           receives the data and bounds it: nothing is written past it
// recv_len       out: bytes copied, 0 when none came (of an answer above 1,400 bytes its length, and none are copied)
// timeout_ticks  ticks of 30 ms, 1 to 65,535; fails after three such periods without an answer
// Result         0 when data came; negative: no answer, refused by the card, no buffer left, or the request, which is
//                sent once, was not sent
// Threads        any but a link's own two, which would wait for themselves
// It holds write_read_ack_wait_mtx to the end.
[[nodiscard]] int32_t RawSockSendMsgWithReadWait(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                                                 uint32_t len, std::span<uint8_t> dest, uint32_t* recv_len,
                                                 uint32_t timeout_ticks);

// The same, for whoever wants to tell a card that refused from one that is not there.
// ack  out: the answer's status: 0 good, 255 none came, other: the card's refusal
[[nodiscard]] int32_t read_and_wait(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code, uint32_t len,
                                    std::span<uint8_t> dest, uint32_t* recv_len, uint8_t* ack, uint32_t timeout_ticks);

// Asks a card for data that is reported to `requester` when it comes, or the failure after three sends.
// dest    the whole payload area of a message buffer; the completion handler's, and freed by it, when the result is 0
// Result  0 when the request was sent; negative otherwise, and dest stays the caller's
[[nodiscard]] int32_t RawSockSendMsgWithRead(uint32_t requester, int index, uint16_t model, uint8_t slot, uint32_t addr,
                                             uint8_t code, uint32_t len, std::span<uint8_t> dest);

} // namespace rvk
