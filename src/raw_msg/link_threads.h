// The two threads of a card link: one receives answers, one ages and checks the pending requests. Each is an endless
// loop around a function that runs once, so that a test can step it. They run to the end of the process. What becomes
// of a request when an answer comes or its time runs out is decided under the link's lock: it is sent again, or
// unlinked. What is to be logged, woken, reported and given back is noted there and done once the lock is released, so
// that nobody waits for the lock while a line is written or a report is sent.
#pragma once

#include "queue/queue.h"

#include <cstdint>
#include <pthread.h>

namespace rvk {

inline constexpr uint32_t retry_ticks = 3;    // ours: resend period of asynchronous requests
inline constexpr uint16_t refusals_max = 200; // ours: with this one a request is given up, after some 15 s

// One answer, or one check pass, at a time on a link: the state and the end of its requests. Taken by the link's two
// threads, and by a sender whose first send is over or that empties a full queue. Whoever holds it never takes
// write_read_ack_wait_mtx: that one's holder may be asleep until a handler under this lock has ended its request.
extern mutex find_check_mtx[MAX_ETH];

// Told of the end of an asynchronous request that its requester has to learn of: a write that was given up, a read in
// any case (its data, recv_len bytes, at `dest` when the result is 0; what dest points to is the callee's). Called by a
// link's threads with no lock held; waits for nothing. Set before the first link is started.
using end_of_request = void (*)(const QNode* node, int32_t result);
extern end_of_request request_ended;

// Called by a link's check thread after each pass; waits for nothing. Set before the first link is started; null: none.
extern void (*after_check_pass)();

// Opens a link and starts its two threads. Nothing is done for a negative index (an absent link), and no thread is
// started when the link cannot be opened; a link without both of its threads is closed to senders. Main thread, at
// start. recv, check: thread handles, written when a thread was started. Always 0.
int32_t RawMsgModuleInit(int index, pthread_t* recv, pthread_t* check);

// Closes the link's socket; the threads are not stopped. Nobody calls it.
void RawMsgModuleUnInit(int index);

// Start one thread. Result: 0, or -1 (logged) when it cannot be created.
[[nodiscard]] int32_t RawMsgRecvTaskCreate(int index, pthread_t* out);
[[nodiscard]] int32_t RawMsgRecvCheckTaskCreate(int index, pthread_t* out);

// What the receive thread repeats: waits for one frame and offers it, when it is an answer, to the queues of its kind.
void receive_step(int index);

// What the check thread repeats every 10 ms: ages all queues of the link and deals with what expired. Result: whether
// more may have expired, and the next pass is to follow at once, but for a pause in which answers get their turn.
[[nodiscard]] bool check_step(int index);

// Drops a reference to a request; the last one frees its node and its frame.
void drop_request(QNode* node);

} // namespace rvk
