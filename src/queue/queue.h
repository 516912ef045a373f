// Pending requests: every frame that still owes us an answer.
//
// One list per link and kind, filed at the tail and searched from the head, so that the oldest request wins. A node
// belongs to its queue while it is filed; the frame and the destination it points to belong to whoever filed it.
// Senders file nodes; the link's receive and check threads find, expire and delete them. Nothing here sends or reports.
//
// Whoever refers to a node that is filed (a handler, a check pass, a sender that takes its node back) holds the link's
// find_check_mtx: the queue's own mutex guards only list and count and is released before a handler runs.
// All functions trust their link index (0 to 2) and queue number (0 to 5).
#pragma once

#include "base/card_links.h"
#include "base/mutex.h"
#include "timer/timer.h"

#include <cstddef>
#include <cstdint>
#include <semaphore.h>

namespace rvk {

inline constexpr int ACK_QUEUE = 0;                // asynchronous acknowledged writes: the outcome is reported later
inline constexpr int ACK_WAIT_QUEUE = 1;           // synchronous acknowledged writes: a sender waits
inline constexpr int READ_QUEUE = 2;               // asynchronous reads
inline constexpr int READ_WAIT_QUEUE = 3;          // synchronous reads
inline constexpr int queue_numbers = 6;            // 4 and 5 are prepared and aged, never filled
inline constexpr int32_t queue_nodes_max = 65'535; // ours: as many as there are sequence numbers, less one

// Who may do what with a filed node. Guarded by the link's find_check_mtx, but for the value a node is filed with.
enum class phase : uint8_t {
    pending,  // the link's threads act on answers and expiries
    sending,  // asynchronous, first send not over: the link's threads only note answers, the sender settles them
    answered, // over; its sender will delete it. No later answer or expiry touches it
    unlinked, // was sending or answered when its queue was emptied: filed no more, its sender gives it back
};

// A node is a zero-filled block of the pool, given back by queue_del or queue_empty.
struct QNode {
    uint8_t* buf; // payload of the message buffer that holds the frame as sent; a resend sends it unchanged
    Timer timer;
    int32_t index;      // link
    uint32_t addr;      // card address; first match key
    int32_t ack;        // the answer's status; 255: no valid answer yet
    uint32_t recv_len;  // data bytes of the matching answer; 0 until one is seen
    uint32_t send_len;  // bytes of the frame as a resend takes them
    uint8_t* dest;      // where a read's data goes
    uint16_t seq;       // second match key
    sem_t sem;          // a synchronous sender waits on it
    uint32_t count;     // expiries seen; asynchronous requests start at 1
    uint32_t requester; // identity to report to; asynchronous requests only
    QNode* next;        // younger neighbour, null at the tail
    // ours:
    QNode* prev;        // older neighbour, null at the head
    QNode* same_seq;    // next younger of the same sequence number; the youngest points at the oldest
    uint32_t dest_size; // bytes that dest can take
    uint32_t asked_us;  // when it was filed, or asked again after a refusal; low bits of the monotonic clock
    uint16_t refusals;  // wrong answers seen
    phase state;
};

// Called with a node whose answer matched (data not null) or whose timer expired (data null, length meaningless).
using completion_handler = void (*)(QNode* node, const uint8_t* data, uint32_t length);

extern mutex mtx[MAX_ETH][queue_numbers];      // list, count and index of one queue
extern QNode* Qlist[MAX_ETH][queue_numbers];   // heads
extern int32_t Qcount[MAX_ETH][queue_numbers]; // nodes filed
extern mutex mutex_find;                       // every handler call of queue_find
extern mutex mutex_check;                      // every handler call of queue_check

// Empties all heads and counts. Once, before any other call.
void queue_init();

// Appends a node. Result: 0, or -1 when the queue is full; the node then stays the caller's.
[[nodiscard]] int32_t queue_add(int index, int queue, QNode* node);

// Offers an answer to the oldest request with this address and sequence number that is not over. Always 0.
int32_t queue_find(int index, int queue, uint32_t addr, uint8_t ack, uint16_t seq, uint32_t recv_len,
                   completion_handler handler, const uint8_t* data);

// Counts an expiry of every node whose timer ran out and calls the handler for it, oldest first. An expiry of a node
// that is still being sent, or is over, does not count. Always 0.
int32_t queue_check(int index, int queue, completion_handler handler);

// A glance without the mutex, for passes over queues that are empty nearly always; what is filed meanwhile is the next
// pass's.
[[nodiscard]] bool queue_is_empty(int index, int queue);

// Nodes filed, at a glance without the mutex: for reports, not for decisions.
[[nodiscard]] int32_t queue_length(int index, int queue);

// Head of the list, null when empty.
[[nodiscard]] QNode* queue_get(int index, int queue) RVK_REQUIRES(mtx[index][queue]);

// Unlinks *handle and gives it back to the pool. A node that is not filed is left alone, but still lowers the count.
// Result: 0, or -1 when the count went below zero.
int32_t queue_del(int index, int queue, QNode** handle);

// Drops every request of a queue: no report, no semaphore, frames and destinations stay with those they belong to. A
// node that its sender still holds is unlinked and left to it.
void queue_empty(int index, int queue);

// Unlinks and gives back the oldest node whose `buf` is this, without changing the count.
void queue_del_buf(int index, int queue, const uint8_t* buf);

} // namespace rvk
