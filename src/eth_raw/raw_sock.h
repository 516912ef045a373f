// Single frames to and from the cards, and the message buffers in which they are built in place: payload first, header
// written in front of it, checksum behind it. Sends each frame once; retries are the business of those above.
//
// index, model, slot, addr: the card link (0 to 2) and the card's address on it, as the frame carries them.
// A message buffer is a pool block of whoever got it; its handle is the payload, the frame starts 28 bytes before it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace rvk {

inline constexpr size_t receive_bytes = 1450; // card: no reply is longer

// The process's one receive buffer. A received payload points into it and is valid until the next receive; the one
// receive thread of link 0 uses it.
extern uint8_t gRecvBuffer[receive_bytes];

// Result: a zero-filled buffer for len payload bytes (and at least 64); null above 1,400 or when the pool has none.
[[nodiscard]] uint8_t* RawMsgBuffGet(unsigned len);

// Result: where the frame around a payload starts.
[[nodiscard]] uint8_t* RawMsgBuffHeadGet(uint8_t* payload);

void RawMsgBuffFree(uint8_t* payload);
void RawMsgFreeBuf(uint8_t* payload); // the same, for whoever ends a request

// Builds the frame in its buffer and sends it; on success the buffer holds the frame as RawSockMsgSendAgain takes it.
// payload, len  a message buffer's payload, 1 to 1,400 bytes; for a read the bytes asked for
// Result        the frame's length in bytes; -1 when refused (no such link, link not open, length) or not sent whole
// Threads       any; sends on a link are serialised by its send_mutex, a socket that would block costs 1 ms once
[[nodiscard]] int32_t RawSockMsgSend(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code, uint16_t seq,
                                     uint8_t* payload, unsigned len);

// The second half of it: sends the frame that stands packed in its buffer, frame_bytes long.
[[nodiscard]] int32_t send_packed(int index, uint8_t* payload, unsigned frame_bytes, unsigned len);

// Sends a frame again, byte for byte. Result: `frame_bytes`, or -1. The second prints nothing.
// error  out: errno of a send that failed, 0 otherwise
int32_t RawSockMsgSendAgain(int index, uint8_t* payload, unsigned frame_bytes);
int32_t send_again(int index, uint8_t* payload, unsigned frame_bytes, int* error);
void print_send_error(int error); // as the first prints it

// Waits for one frame. Result: the payload of a valid reply, with its fields in the out-parameters; null for anything
// else. A receive that fails (link down, socket gone) is logged once, and each such call lasts 100 ms.
[[nodiscard]] const uint8_t* RawSockMsgRecv(int index, uint8_t* ack, uint16_t* model, uint8_t* slot, uint32_t* addr,
                                            uint8_t* code, uint16_t* seq, uint16_t* len);

// Dumps a frame to standard output as hex when print_flag is set.
void print_msg(const uint8_t* frame, size_t count);

} // namespace rvk
