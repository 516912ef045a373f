// What connects the demo to the cards: the send operations and the picture write, each under demo_mutex, so that it
// never interleaves with a command's exchange. index, model, slot: the card. Called by the main thread.
#pragma once

#include <cstdint>
#include <span>

namespace rvk {

// RawSockSendMsgWithReadWait of the destination's length, with a timeout of 3 ticks; its result.
int32_t DemoRawSockSendMsgWithReadWait(int index, uint16_t model, uint8_t slot, uint32_t addr, std::span<uint8_t> dest);

// RawSockSendMsgWithAckWait with a timeout of 3 ticks; its result. The card's status is not passed back.
int32_t DemoRawSockSendMsgWithAckWait(int index, uint16_t model, uint8_t slot, uint32_t addr,
                                      std::span<const uint8_t> data);

// DDR2Write; holds demo_mutex for the whole picture, so that commands wait for it. Result: DDR2Write's.
int32_t write_demo_data(int index, uint16_t model, uint8_t slot, uint32_t buffer, uint16_t hor, uint16_t ver,
                        std::span<const uint8_t> data);

} // namespace rvk
