// The plain write: no answer is expected, nothing is tracked.
#pragma once

#include <cstdint>
#include <span>

namespace rvk {

// Writes to a card, cut into frames of 1,400 bytes and a last, shorter one; piece i goes to addr + 1,400 i.
// Result   0, also when a frame could not be sent (logged; the next ones still go out), and for a length of 0;
//          -1 when no message buffer could be had
// Threads  any
int32_t RawSockSendMsg(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                       std::span<const uint8_t> data);

// The same for who wants to know. Result: frames that could not be sent; -1 when no message buffer could be had.
[[nodiscard]] int32_t send_plain_counted(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                                         std::span<const uint8_t> data);

} // namespace rvk
