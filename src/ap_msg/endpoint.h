// The daemon's endpoint on the messaging service: its identity, the thread that waits for messages, and the filter in
// front of the command dispatch.
#pragma once

#include <cstdint>

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

} // namespace rvk
