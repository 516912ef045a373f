#include "raw_msg/completion.h"

#include "base/counters.h"
#include "base/elapsed.h"
#include "eth_raw/frame.h"
#include "eth_raw/raw_sock.h"
#include "main/log.h"
#include "raw_msg/report.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace rvk {
namespace {

QNode* woken[MAX_ETH]; // its semaphore is still to be posted; each under its link's find_check_mtx

enum class outcome {
    done,     // a good answer
    failed,   // an answer that ends the request without data
    refused,  // a wrong acknowledgement
    late,     // an expiry that costs a resend
    given_up, // the last expiry
    nothing,  // as if nothing had come
};

// What an answer, or an expiry, means for an asynchronous acknowledged write.
outcome judge_ack(const QNode& node, bool answered)
{
    if (!answered) { return node.count >= give_up_count ? outcome::given_up : outcome::late; }
    if (node.ack == ack_good) { return outcome::done; }
    return node.ack == no_answer ? outcome::nothing : outcome::refused; // a card that says "no answer" has said nothing
}

outcome judge_ack_wait(const QNode& node, bool answered)
{
    if (answered) { return judge_ack(node, true); }
    return node.ack == no_answer && node.count >= give_up_count_wait ? outcome::given_up : outcome::nothing;
}

outcome judge_read(const QNode& node, bool answered)
{
    if (!answered) { return node.count >= give_up_count ? outcome::given_up : outcome::late; }
    if (node.ack != ack_good) { return node.ack == no_answer ? outcome::nothing : outcome::refused; }
    if (node.recv_len == 0) { return outcome::nothing; }
    return node.recv_len <= frame_data_max ? outcome::done : outcome::failed;
}

// A synchronous reader is woken by a good answer without data at once, and by one that is too long.
outcome judge_read_wait(const QNode& node, bool answered)
{
    if (node.ack == ack_good) { return answered && node.recv_len != 0 ? outcome::done : outcome::failed; }
    if (answered) { return node.ack == no_answer ? outcome::nothing : outcome::refused; }
    return node.recv_len == 0 && node.count >= give_up_count_wait ? outcome::given_up : outcome::nothing;
}

// What is decided twice, since the request was still being sent, is counted when its sender settles it.
outcome counted(const QNode& node, outcome means, bool answered)
{
    if (means == outcome::done) { return means; }
    link_counters& figures = link_count[node.index];
    if (means == outcome::refused) { figures.wrong_acks.add(); }
    if (means == outcome::given_up) { figures.given_up.add(); }
    if (answered && means != outcome::refused) { figures.dropped[drop::unusable].add(); }
    return means;
}

void forget_answer(QNode* node)
{
    node->ack = no_answer;
    node->recv_len = 0;
}

// Copies a read's answer to where its caller wants it, and no further; from then on recv_len is what was copied.
void take_data(QNode* node, const uint8_t* data)
{
    if (node->recv_len > frame_data_max || data == node->dest) { return; }
    node->recv_len = std::min(node->recv_len, node->dest_size);
    memcpy(node->dest, data, node->recv_len);
}

// An answer to a request whose first send is not over: noted in the node, for its sender to settle. A refusal is noted
// by staying in `ack`; a later good answer still replaces it.
void note_answer(QNode* node, outcome means, const uint8_t* data)
{
    if (means == outcome::nothing) {
        link_count[node->index].dropped[drop::unusable].add();
        forget_answer(node);
    }
    if (means != outcome::done && means != outcome::failed) { return; }
    if (node->dest != nullptr) { take_data(node, data); }
    node->state = phase::answered;
}

void resend(QNode* node)
{
    forget_answer(node);
    link_count[node->index].resends.add();
    // A resend that fails is logged below; the timer runs, so the next expiry tries again or gives up.
    static_cast<void>(RawSockMsgSendAgain(node->index, node->buf, node->send_len));
    timerStart(retry_ticks, &node->timer);
}

void resend_refused(QNode* node)
{
    log_print(LOG_HERE, "wrong ack (0x%x), send msg again (%d)!\n", static_cast<unsigned>(node->ack),
              static_cast<int>(node->count));
    node->asked_us = monotonic_us();
    resend(node);
}

void resend_late(QNode* node)
{
    log_print(LOG_HERE, "no ack msg (0x%x), send msg again (%d)!\n", static_cast<unsigned>(node->ack),
              static_cast<int>(node->count));
    resend(node);
}

// Result: true when this refusal was one too many.
bool refused_for_good(QNode* node)
{
    if (++node->refusals < refusals_max) { return false; }
    link_count[node->index].given_up.add();
    return true;
}

void finish(int queue, QNode* node)
{
    RawMsgFreeBuf(node->buf);
    static_cast<void>(queue_del(node->index, queue, &node)); // logs a count that went wrong; there is no one to tell
}

void stop(QNode* node)
{
    timerStop(&node->timer);
    node->count = 0;
}

void give_up_write(QNode* node)
{
    log_print(LOG_HERE, "wrong ack (0x%x), send msg count (%d), not send again!\n", static_cast<unsigned>(node->ack),
              static_cast<int>(node->count));
    stop(node);
    WriteAckResultReport(node, -1);
    finish(ACK_QUEUE, node);
}

void finish_read(QNode* node, int32_t result)
{
    stop(node);
    if (result != 0) { node->recv_len = 0; }
    ReadResultReport(node, result);
    release_read_message(node);
    finish(READ_QUEUE, node);
}

// The sender takes what it wants to know from the node and deletes it.
void wake(QNode* node) RVK_REQUIRES(find_check_mtx[node->index])
{
    timerStop(&node->timer);
    node->state = phase::answered;
    QNode* before = std::exchange(woken[node->index], node);
    if (before != nullptr) { sem_post(&before->sem); } // a check pass may end one of each kind
}

} // namespace

void AckCompleteMsg(QNode* node, const uint8_t* data, uint32_t)
{
    const outcome means = judge_ack(*node, data != nullptr);
    if (node->state == phase::sending) { return note_answer(node, means, data); }
    switch (counted(*node, means, data != nullptr)) {
    case outcome::done: stop(node); return finish(ACK_QUEUE, node);
    case outcome::refused: return refused_for_good(node) ? give_up_write(node) : resend_refused(node);
    case outcome::late: return resend_late(node);
    case outcome::given_up: return give_up_write(node);
    case outcome::failed: // no answer to a write means this
    case outcome::nothing: return forget_answer(node);
    }
}

void AckWaitCompleteMsg(QNode* node, const uint8_t* data, uint32_t)
{
    switch (counted(*node, judge_ack_wait(*node, data != nullptr), data != nullptr)) {
    case outcome::done: return wake(node);
    case outcome::refused:
        log_print(LOG_HERE, "wrong ack (0x%x)!\n", static_cast<unsigned>(node->ack));
        return wake(node);
    case outcome::given_up:
        log_print(LOG_HERE, "no ack msg (0x%x) write error!\n", static_cast<unsigned>(node->ack));
        return wake(node);
    case outcome::failed: // neither is meant for a synchronous write
    case outcome::late:
    case outcome::nothing: return forget_answer(node);
    }
}

void ReadCompleteMsg(QNode* node, const uint8_t* data, uint32_t)
{
    const outcome means = judge_read(*node, data != nullptr);
    if (node->state == phase::sending) { return note_answer(node, means, data); }
    switch (counted(*node, means, data != nullptr)) {
    case outcome::done: take_data(node, data); return finish_read(node, 0);
    case outcome::failed: return finish_read(node, -1);
    case outcome::refused: return refused_for_good(node) ? finish_read(node, -1) : resend_refused(node);
    case outcome::late: return resend_late(node);
    case outcome::given_up: return finish_read(node, -1);
    case outcome::nothing: return forget_answer(node);
    }
}

void ReadWaitCompleteMsg(QNode* node, const uint8_t* data, uint32_t)
{
    switch (counted(*node, judge_read_wait(*node, data != nullptr), data != nullptr)) {
    case outcome::done: take_data(node, data); return wake(node);
    case outcome::failed: log_print(LOG_HERE, "wrong msg and  recv_len, Read error!\n"); return wake(node);
    case outcome::refused:
        log_print(LOG_HERE, "wrong ack (0x%x)!\n", static_cast<unsigned>(node->ack));
        node->recv_len = 0;
        return wake(node);
    case outcome::given_up:
        log_print(LOG_HERE, "no resp msg (0x%x) read error no msg!\n", static_cast<unsigned>(node->ack));
        return wake(node);
    case outcome::late: // not meant for a synchronous read
    case outcome::nothing: return forget_answer(node);
    }
}

sem_t* take_woken(int index)
{
    QNode* node = std::exchange(woken[index], nullptr);
    return node == nullptr ? nullptr : &node->sem;
}

int32_t AckRawMsg(int index, uint32_t addr, uint8_t ack, uint16_t seq, uint32_t length, const uint8_t* data)
{
    return queue_find(index, ACK_QUEUE, addr, ack, seq, length, AckCompleteMsg, data);
}

int32_t AckWaitRawMsg(int index, uint32_t addr, uint8_t ack, uint16_t seq, uint32_t length, const uint8_t* data)
{
    return queue_find(index, ACK_WAIT_QUEUE, addr, ack, seq, length, AckWaitCompleteMsg, data);
}

int32_t ReadRawMsg(int index, uint32_t addr, uint8_t ack, uint16_t seq, uint32_t length, const uint8_t* data)
{
    return queue_find(index, READ_QUEUE, addr, ack, seq, length, ReadCompleteMsg, data);
}

int32_t ReadWaitRawMsg(int index, uint32_t addr, uint8_t ack, uint16_t seq, uint32_t length, const uint8_t* data)
{
    return queue_find(index, READ_WAIT_QUEUE, addr, ack, seq, length, ReadWaitCompleteMsg, data);
}

int32_t CheckAckRawMsg(int index) { return queue_check(index, ACK_QUEUE, AckCompleteMsg); }

int32_t CheckAckWaitRawMsg(int index) { return queue_check(index, ACK_WAIT_QUEUE, AckWaitCompleteMsg); }

int32_t CheckReadRawMsg(int index) { return queue_check(index, READ_QUEUE, ReadCompleteMsg); }

int32_t CheckReadWaitRawMsg(int index) { return queue_check(index, READ_WAIT_QUEUE, ReadWaitCompleteMsg); }

} // namespace rvk
