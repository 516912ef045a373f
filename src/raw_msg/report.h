// How a requester learns of an asynchronous request's end: all that the transport knows of messages.
// Called by the completion handlers with the link's find_check_mtx held; a send waits at most as long as the messaging
// service's bound.
#pragma once

#include "queue/queue.h"

#include <cstdint>

namespace rvk {

// Reports an acknowledged write that was given up; prints the message on the console first.
void WriteAckResultReport(const QNode* node, int32_t result);

// Reports a read: with result 0 the node's recv_len bytes at its `dest`, otherwise the head alone.
void ReadResultReport(const QNode* node, int32_t result);

// Gives back the message buffer that a read's data went into.
void release_read_message(const QNode* node);

} // namespace rvk
