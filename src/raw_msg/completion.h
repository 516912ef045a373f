// What happens to a pending request when an answer arrives or its time runs out: decided under the link's lock, acted
// on after it.
//
// A handler decides: it resends, or ends the request and notes what is to be said and done about it. After the lock
// close_pass() does that: logs, wakes, reports, gives back. So nobody waits for the link's lock while a line is written
// or a report is sent. Whoever calls handlers opens a pass under the lock before; a link's two threads each have one of
// their own.
#pragma once

#include "queue/queue.h"

#include <array>
#include <cstdint>

namespace rvk {

inline constexpr uint32_t retry_ticks = 3;        // ours: resend period of asynchronous requests
inline constexpr uint32_t give_up_count = 4;      // ours: expiries, counted from 1, that end an asynchronous request
inline constexpr uint32_t give_up_count_wait = 3; // ours: expiries, counted from 0, that end a synchronous one
inline constexpr uint16_t refusals_at_once = 32;  // ours: so many refusals are resent as they come; later ones when the
                                                  // timer runs out, or a card would be asked without end at wire speed
inline constexpr uint16_t refusals_max = 200;     // ours: with this one the request is given up, after some 15 s

// One answer, or one check pass, at a time on a link: the state and the end of its requests. Taken by the link's two
// threads, and by a sender whose first send is over or that empties a full queue. Whoever holds it never takes
// write_read_ack_wait_mtx: that one's holder may be asleep until a handler under this lock has ended its request.
extern mutex find_check_mtx[MAX_ETH];

// What is to be said and done about one request once the lock is released.
struct note {
    QNode* ended; // held; null: it was sent again and may be anybody's by now
    int queue;
    outcome means;
    int32_t ack;    // that was decided on
    uint32_t count; // expiries, likewise
    int error;      // errno of a resend that failed
};

// Room for four queues' expiries, or the two requests that one answer may end.
struct completion_pass {
    std::array<note, 4 * expired_max> notes;
    size_t used = 0;
    bool met_a_request = false;
};

// Handlers; null data stands for an expiry.
void AckCompleteMsg(QNode* node, const uint8_t* data, uint32_t length) RVK_REQUIRES(find_check_mtx[node->index]);
void AckWaitCompleteMsg(QNode* node, const uint8_t* data, uint32_t length) RVK_REQUIRES(find_check_mtx[node->index]);
void ReadCompleteMsg(QNode* node, const uint8_t* data, uint32_t length) RVK_REQUIRES(find_check_mtx[node->index]);
void ReadWaitCompleteMsg(QNode* node, const uint8_t* data, uint32_t length) RVK_REQUIRES(find_check_mtx[node->index]);

// Offer one answer to a link's queue.
int32_t AckRawMsg(int index, uint32_t addr, uint8_t ack, uint16_t seq, uint32_t length, const uint8_t* data);
int32_t AckWaitRawMsg(int index, uint32_t addr, uint8_t ack, uint16_t seq, uint32_t length, const uint8_t* data);
int32_t ReadRawMsg(int index, uint32_t addr, uint8_t ack, uint16_t seq, uint32_t length, const uint8_t* data);
int32_t ReadWaitRawMsg(int index, uint32_t addr, uint8_t ack, uint16_t seq, uint32_t length, const uint8_t* data);

// Deal with a link's expired requests of one queue, as many as queue_check takes.
int32_t CheckAckRawMsg(int index);
int32_t CheckAckWaitRawMsg(int index);
int32_t CheckReadRawMsg(int index);
int32_t CheckReadWaitRawMsg(int index);

void open_pass(int index, completion_pass* pass) RVK_REQUIRES(find_check_mtx[index]);
void close_pass(completion_pass* pass); // with no lock of a link held

// Gives a request up as one of its owners; the last one gives its frame back too.
void release(QNode* node);

// Told of the end of an asynchronous request that its requester has to learn of: a write that was given up, a read in
// any case (its data, recv_len bytes, at `dest` when the result is 0; what dest points to is the callee's). Set once,
// before the first link is started; called by a link's threads, which wait for nothing.
using end_of_request = void (*)(const QNode* node, int32_t result);
extern end_of_request request_ended;

} // namespace rvk
