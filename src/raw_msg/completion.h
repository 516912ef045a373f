// What happens to a pending request when an answer arrives or its time runs out: one handler per queue, and the calls
// that offer an answer or a check pass to one queue. All are called with the link's find_check_mtx held.
#pragma once

#include "queue/queue.h"
#include "raw_msg/link_lock.h"

#include <cstdint>
#include <semaphore.h>

namespace rvk {

inline constexpr uint32_t retry_ticks = 3;        // ours: resend period of asynchronous requests
inline constexpr uint32_t give_up_count = 4;      // ours: expiries, counted from 1, that end an asynchronous request
inline constexpr uint32_t give_up_count_wait = 3; // ours: expiries, counted from 0, that end a synchronous one
inline constexpr uint16_t refusals_max = 1000;    // ours: a card that refuses without end must not be asked without end

// Handlers; null data stands for an expiry.
void AckCompleteMsg(QNode* node, const uint8_t* data, uint32_t length) RVK_REQUIRES(find_check_mtx[node->index]);
void AckWaitCompleteMsg(QNode* node, const uint8_t* data, uint32_t length) RVK_REQUIRES(find_check_mtx[node->index]);
void ReadCompleteMsg(QNode* node, const uint8_t* data, uint32_t length) RVK_REQUIRES(find_check_mtx[node->index]);
void ReadWaitCompleteMsg(QNode* node, const uint8_t* data, uint32_t length) RVK_REQUIRES(find_check_mtx[node->index]);

// The semaphore of the sender that handlers have woken since the last call, null when none. Whoever ran handlers takes
// it before releasing the link's lock and posts it after that: a sender above the poster's priority would otherwise
// wake only to wait for the lock.
[[nodiscard]] sem_t* take_woken(int index) RVK_REQUIRES(find_check_mtx[index]);

// Offer one answer to a link's queue.
int32_t AckRawMsg(int index, uint32_t addr, uint8_t ack, uint16_t seq, uint32_t length, const uint8_t* data);
int32_t AckWaitRawMsg(int index, uint32_t addr, uint8_t ack, uint16_t seq, uint32_t length, const uint8_t* data);
int32_t ReadRawMsg(int index, uint32_t addr, uint8_t ack, uint16_t seq, uint32_t length, const uint8_t* data);
int32_t ReadWaitRawMsg(int index, uint32_t addr, uint8_t ack, uint16_t seq, uint32_t length, const uint8_t* data);

// Deal with a link's expired requests of one queue.
int32_t CheckAckRawMsg(int index);
int32_t CheckAckWaitRawMsg(int index);
int32_t CheckReadRawMsg(int index);
int32_t CheckReadWaitRawMsg(int index);

} // namespace rvk
