// Acknowledged writes: asynchronous, reported later when a card does not acknowledge, and synchronous.
//
// index, model, slot, addr: link (0 to 2) and card address of the first byte. Data longer than 1,400 bytes is cut into
// pieces; piece i goes to addr + 1,400 i. A length of 0 sends nothing and returns 0.
#pragma once

#include <cstdint>
#include <span>

namespace rvk {

// Writes without waiting. What a card then does not acknowledge in three sends is reported to `requester`, per piece.
// Result   0 when every piece was sent; else the first failing piece's result, and the rest is not sent
// Threads  any; while 65,535 writes are pending it waits for room
[[nodiscard]] int32_t RawSockSendMsgWithAck(uint32_t requester, int index, uint16_t model, uint8_t slot, uint32_t addr,
                                            uint8_t code, std::span<const uint8_t> data);

// One piece of the above, at most 1,400 bytes.
[[nodiscard]] int32_t RawSockSendOneMsgWithAck(uint32_t requester, int index, uint16_t model, uint8_t slot,
                                               uint32_t addr, uint8_t code, std::span<const uint8_t> data);

// Writes and waits for the card, piece by piece; each piece is sent once.
// ack            out: the last piece's status: 0 good, 255 none came, other: the card's refusal
// timeout_ticks  ticks of 30 ms, 1 to 65,535; a piece fails after three such periods without an answer
// Result         of the last piece; a failure of an earlier one is only logged
// Threads        any but a link's own two, which would wait for themselves
// It holds write_read_ack_wait_mtx during each piece.
[[nodiscard]] int32_t RawSockSendMsgWithAckWait(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                                                std::span<const uint8_t> data, uint8_t* ack, uint32_t timeout_ticks);

// One piece of the above, at most 1,400 bytes.
// Result  0 when an answer came, good or not; -1 when none came or the request could not be filed or sent
[[nodiscard]] int32_t RawSockSendOneMsgWithAckWait(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                                                   std::span<const uint8_t> data, uint8_t* ack, uint32_t timeout_ticks);

} // namespace rvk
