// Pending requests: every frame that waits for its answer. One list per link and kind, oldest first, and an index by
// number that finds the oldest request. Senders file nodes; the link's receive and check threads find, age, expire and
// delete them. Nothing here sends or reports.
// References to a node: the queue's while it is filed, its sender's, and that of a link thread that is to tell of its
// end. The last one frees the node; the frame buffer is freed by sender or link thread, never by the queue. Once filed,
// a node is changed (but for timer and links) and unlinked under its link's find_check_mtx. A queue's own mutex guards
// list, count and index and is released before a handler runs. Links (0 to 2) and queues (0 to 5) are not checked.
#pragma once

#include "base/board.h"
#include "base/mutex.h"
#include "timer/timer.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace rvk {

inline constexpr int ACK_QUEUE = 0;                // asynchronous acknowledged writes: a failure is reported later
inline constexpr int ACK_WAIT_QUEUE = 1;           // synchronous acknowledged writes: a sender waits
inline constexpr int READ_QUEUE = 2;               // asynchronous reads: data or failure is reported later
inline constexpr int READ_WAIT_QUEUE = 3;          // synchronous reads
inline constexpr int queue_numbers = 6;            // 4 and 5 are prepared and aged, never filled
inline constexpr int32_t queue_nodes_max = 65'535; // ours: as many as there are sequence numbers, less one
inline constexpr size_t expired_max = 128; // ours: what one call of queue_check takes, 15 ms of frames at 100 Mbit/s

constexpr bool waits(int queue) { return queue == ACK_WAIT_QUEUE || queue == READ_WAIT_QUEUE; }
constexpr bool reads(int queue) { return queue == READ_QUEUE || queue == READ_WAIT_QUEUE; }

// What an answer, or an expiry, meant for a request.
enum class outcome : uint8_t {
    nothing,  // as if nothing had come; of a node: its request is not over
    done,     // a good answer
    failed,   // an answer that ends the request without data
    refused,  // a wrong acknowledgement
    late,     // an expiry, not the last one
    given_up, // the last expiry, or one refusal too many
};

// A node is a zero-filled block of the pool.
struct QNode {
    uint8_t* buf; // payload of the frame buffer; the frame is packed before the node is filed
    Timer timer;
    int32_t index;      // link
    uint32_t addr;      // card address; first match key
    int32_t ack;        // the answer's status; 255: no valid answer yet
    uint32_t recv_len;  // data bytes of the matching answer; 0 until one is seen
    uint32_t send_len;  // the frame's bytes; of READ_WAIT_QUEUE 64
    uint8_t* dest;      // where a read's data goes
    uint16_t seq;       // second match key
    semaphore sem;      // a synchronous sender waits on it
    uint32_t count;     // expiries seen; asynchronous requests start at 1
    uint32_t requester; // identity to report to, of an asynchronous request
    QNode* next;        // the next younger one, null at the tail
    // ours:
    QNode* prev;          // the next older one, null at the head
    QNode* same_slot;     // next younger in its slot of the index, null at the end
    QNode* next_expired;  // of one call of queue_check
    uint32_t dest_size;   // bytes that dest can take
    uint32_t asked_us;    // when it was filed, or asked again after a refusal; low bits of the monotonic clock
    uint16_t refusals;    // wrong answers seen
    uint8_t kept_refusal; // status of a refusal that is resent when the timer runs out; 0: none
    bool being_sent;      // its first send is not over: expiries do not count
    bool filed;           // in its queue
    outcome end;          // how its request ended
    std::atomic<uint8_t> extra_references; // beside the first
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

// Offers an answer to the oldest request with this address and sequence number. Always 0.
int32_t queue_find(int index, int queue, uint32_t addr, uint8_t ack, uint16_t seq, uint32_t recv_len,
                   completion_handler handler, const uint8_t* data);

// Counts an expiry of every node whose timer ran out and calls the handler for it, oldest first, for at most
// expired_max nodes; not for one that is still being sent. The handler ends no other node than its own. Always 0.
int32_t queue_check(int index, int queue, completion_handler handler);

// The aging pass: hands the ticks counted since the last one to every pending request of a link's first `queues`
// queues. Called by the link's check thread; with several links running, whichever passes first takes the ticks.
void timerUpdate(int index, int queues);

// Nodes filed; without the mutex, for reports.
[[nodiscard]] inline int32_t queue_length(int index, int queue)
{
    return std::atomic_ref(Qcount[index][queue]).load(std::memory_order_relaxed);
}

// Head of the list, null when empty.
[[nodiscard]] inline QNode* queue_get(int index, int queue) RVK_REQUIRES(mtx[index][queue])
{
    return Qlist[index][queue];
}

// Unlinks *handle and drops the queue's reference to it. A node that is not filed is left alone, but
// lowers the count. Result: 0, or -1 (logged) when the count went below zero.
int32_t queue_del(int index, int queue, QNode** handle);

// Drops every request of a queue, without report or post; frame buffers and destinations are not freed.
void queue_empty(int index, int queue);

// Drops the oldest request with this `buf`; the count stays as it is. Nobody calls it.
void queue_del_buf(int index, int queue, const uint8_t* buf);

// One reference to a node more; one less. Result: true when that was the last one and the node went back to the pool.
inline void add_reference(QNode* node) { node->extra_references.fetch_add(1, std::memory_order_relaxed); }
bool drop_reference(QNode* node);

} // namespace rvk
