// The two threads of a card link: one receives answers, one ages and checks the pending requests. Each is an endless
// loop around a function that runs once, so that a test can step it. They run to the end of the process.
#pragma once

#include <cstdint>
#include <pthread.h>

namespace rvk {

// Opens a link and starts its receive and its check thread. Nothing is done for a negative index (an absent link), and
// no thread is started when the link cannot be opened; a link without both of its threads is closed to senders.
// recv, check  out: thread handles, written when a thread was started
// Result       always 0
// Main thread, at start.
int32_t RawMsgModuleInit(int index, pthread_t* recv, pthread_t* check);

// Closes the link's socket; the threads are not stopped.
void RawMsgModuleUnInit(int index);

// Result: 0, or -1 (logged) when the thread cannot be created. SCHED_FIFO 90 and 89.
[[nodiscard]] int32_t RawMsgRecvTaskCreate(int index, pthread_t* out);
[[nodiscard]] int32_t RawMsgRecvCheckTaskCreate(int index, pthread_t* out);

// The threads' bodies; never return.
void RawMsgRecv(int index);
void RawMsgAckReadCheck(int index);

// What RawMsgRecv repeats: waits for one frame and offers it, when it is an answer, to the queues of its kind.
void receive_step(int index);

// One pass of what RawMsgAckReadCheck repeats every 10 ms: ages all queues of the link, deals with what expired.
// Result: whether more may have expired, and the next pass should follow at once; answers get their turn in between.
[[nodiscard]] bool check_step(int index);

// Called by a link's check thread after each pass; waits for nothing. Set before the first link is started; null: none.
extern void (*after_check_pass)();

} // namespace rvk
