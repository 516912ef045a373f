// Requests from their making to their end, as their senders see them: node creation, sequence numbers, the filing
// rules, and who owns a node and its frame's buffer while the frame goes out.
//
// A synchronous sender owns buffer and node throughout: it files the node, and once it is woken (or its send failed)
// takes the answer and deletes the node in one hold of the link's find_check_mtx. An asynchronous sender files its node
// as `sending`: until settle() the link's threads only note answers in it; from settle() on node and buffer are the
// completion handler's.
#pragma once

#include "base/mutex.h"
#include "queue/queue.h"

#include <cstdint>
#include <span>

namespace rvk {

// Every synchronous exchange of the process, one at a time, from taking its buffer to deleting its node.
extern mutex write_read_ack_wait_mtx;

// The sequence numbers of one kind of request: the next one, wrapping from 65,535 to 0.
struct sequence {
    mutex& mtx;
    uint16_t seq RVK_GUARDED_BY(mtx);
};
extern mutex write_ack_mtx, write_ack_wait_mtx, read_ack_mtx, read_wait_mtx; // each held only while taking a number
extern sequence write_ack, write_ack_wait, read_ack, read_wait;

[[nodiscard]] uint16_t take_number(sequence* from);

// Result: false, and logged, when there is no such link: there is then no queue to file a request in either.
[[nodiscard]] bool link_exists(int index);

// Result: a message buffer that holds a copy of the piece; null, and logged, when the pool has none or the piece is
// longer than 1,400 bytes.
[[nodiscard]] uint8_t* copy_piece(std::span<const uint8_t> piece);

// Result: a node that waits for its first answer, all else zero; null when the pool has none.
[[nodiscard]] QNode* make_node(int index, uint32_t addr, uint16_t seq, uint8_t* buf, uint32_t send_len);

// Gives a node that is not filed back to the pool.
void free_node(QNode* node);

// Files a node; when its queue stays full for 1 ms, everything in that queue is dropped to make room.
// Result: 0, or -1 when even that did not help; the node is then not filed.
[[nodiscard]] int32_t file_or_empty(int queue, QNode* node, const char* operation);

// Files a node in ACK_QUEUE, waiting in steps of 10 ms for as long as it is full.
void file_patiently(QNode* node);

struct answer {
    uint8_t ack;       // 255: none came
    uint32_t recv_len; // bytes copied to the destination
};

// Waits until the node's request is over, takes the answer and deletes the node. Synchronous kinds.
[[nodiscard]] answer await_answer(int queue, QNode* node);

// Takes back and deletes a node whose frame was not sent. All kinds.
void take_back(int queue, QNode* node);

// Hands a node whose frame is out over to the completion handler, with the answer that was noted meanwhile.
void settle(int queue, QNode* node, completion_handler handler);

} // namespace rvk
