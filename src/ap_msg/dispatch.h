// The command front: the daemon's endpoint on the messaging service, the thread that takes messages from it, and what
// carries out the commands in them and answers. Everything runs on the IPC receive thread, one command after the other,
// and keeps nothing between commands. A command waits for its card (up to three timeouts of 6 ticks a piece) under
// demo_mutex; a file job waits, and every later command with it, until the one before it ended.
#pragma once

#include <cstdint>
#include <span>

namespace rvk {

// Registers the daemon's own identity. Result: 0, or the service's failure.
[[nodiscard]] int32_t WexApipcInit();

// Starts the IPC receive thread, SCHED_FIFO 88. Result: 0, or -1 (logged). Main thread, at start.
int32_t WexApRecvTaskCreate(int processor);

// The thread's body; returns only when the identity could not be registered.
void ApMsgRecv(int processor);

// Takes one message from the service: the callback of apipc_loop_wait. The first two values are the service's own.
// length  bytes of the message
// Result  -1 when no message was given; the dispatch's result for a data message, 0 for any other
int ApipcEventDeal(int, int, const void* message, int length);

// Carries out one data message, of at least 40 bytes; data_head: its bytes from 24 on.
// Result  0, or -1 when no reply buffer could be had for a read
int32_t ApipcDataProc(std::span<const uint8_t> message, std::span<const uint8_t> data_head);

} // namespace rvk
