// How a requester learns of an asynchronous request's end: what the transport is given as `request_ended`.
// Called by a link's threads after its lock is released; the node is held meanwhile. Nothing here waits.
#pragma once

#include "queue/queue.h"

#include <cstdint>

namespace rvk {

// The report of the node's kind; a read's message buffer is given back after it.
void report_end(const QNode* node, int32_t result);

// Reports an acknowledged write that was given up; prints the message on the console first.
void WriteAckResultReport(const QNode* node, int32_t result);

// Reports a read: with result 0 the node's recv_len bytes at its `dest`, otherwise the head alone.
void ReadResultReport(const QNode* node, int32_t result);

} // namespace rvk
