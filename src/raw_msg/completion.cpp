#include "raw_msg/completion.h"

#include "base/counters.h"
#include "base/elapsed.h"
#include "eth_raw/frame.h"
#include "eth_raw/link.h"
#include "main/log.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace rvk {

mutex find_check_mtx[MAX_ETH];
end_of_request request_ended;

namespace {

completion_pass* open_passes[MAX_ETH]; // each under its link's find_check_mtx

outcome judge_expiry(int queue, const QNode& node)
{
    if (waits(queue)) { return node.count >= give_up_count_wait ? outcome::given_up : outcome::nothing; }
    if (node.kept_refusal != 0) { return outcome::refused; }
    return node.count >= give_up_count ? outcome::given_up : outcome::late;
}

// A synchronous reader is woken by a good answer without data at once, and by one that is too long.
outcome judge_answer(int queue, const QNode& node)
{
    if (node.ack == no_answer) { return outcome::nothing; } // a card that says "no answer" has said nothing
    if (node.ack != ack_good) { return outcome::refused; }
    if (!reads(queue)) { return outcome::done; }
    if (node.recv_len == 0) { return waits(queue) ? outcome::failed : outcome::nothing; }
    return node.recv_len <= frame_data_max || waits(queue) ? outcome::done : outcome::failed;
}

void count_outcome(const QNode& node, outcome means, bool answered)
{
    link_counters& figures = link_count[node.index];
    if (means == outcome::refused && answered) { figures.wrong_acks.add(); }
    if (means == outcome::given_up) { figures.given_up.add(); }
    const bool unusable = means == outcome::nothing || means == outcome::failed ||
                          (means == outcome::done && node.recv_len > frame_data_max);
    if (answered && unusable) { figures.dropped[drop::unusable].add(); }
}

void take_note(const note& n, int index)
{
    completion_pass* pass = open_passes[index];
    pass->notes[pass->used++] = n;
}

void forget_answer(QNode* node)
{
    node->ack = no_answer;
    node->recv_len = 0;
}

// Copies a read's answer to where its caller wants it, and no further; from then on recv_len is what was copied.
void take_data(QNode* node, const uint8_t* data)
{
    if (node->recv_len > frame_data_max) { return; }
    node->recv_len = std::min(node->recv_len, node->dest_size);
    memcpy(node->dest, data, node->recv_len);
}

void resend(int queue, QNode* node, outcome why)
{
    note n{nullptr, queue, why, node->ack, node->count, 0};
    forget_answer(node);
    link_count[node->index].resends.add();
    // The timer runs, so the next expiry makes up for a resend that fails, or gives up.
    static_cast<void>(RawSockMsgSendAgain(node->index, node->buf, node->send_len, &n.error));
    timerStart(retry_ticks, &node->timer);
    take_note(n, node->index);
}

void end(int queue, QNode* node, outcome how, const uint8_t* data)
{
    take_note({node, queue, how, node->ack, node->count, 0}, node->index);
    timerStop(&node->timer);
    node->end = how;
    if (how == outcome::done && node->dest != nullptr) { take_data(node, data); }
    if (how != outcome::done) { node->recv_len = 0; }
    if (!waits(queue)) { node->count = 0; }
    hold_node(node);                                         // the pass
    static_cast<void>(queue_del(node->index, queue, &node)); // logs a count that went wrong; there is no one to tell
}

// Of an asynchronous request, when it comes or when the timer of one that came runs out.
void refuse(int queue, QNode* node, bool answered)
{
    if (!answered) {
        --node->count; // that expiry was no unanswered send
        node->ack = std::exchange(node->kept_refusal, uint8_t{0});
    } else if (++node->refusals >= refusals_max) {
        link_count[node->index].given_up.add();
        return end(queue, node, outcome::given_up, nullptr);
    } else if (node->refusals > refusals_at_once) {
        node->kept_refusal = static_cast<uint8_t>(node->ack);
        return forget_answer(node);
    }
    node->asked_us = monotonic_us();
    resend(queue, node, outcome::refused);
}

void complete(int queue, QNode* node, const uint8_t* data) RVK_REQUIRES(find_check_mtx[node->index])
{
    const bool answered = data != nullptr;
    if (answered) { open_passes[node->index]->met_a_request = true; }
    const outcome means = answered ? judge_answer(queue, *node) : judge_expiry(queue, *node);
    count_outcome(*node, means, answered);
    switch (means) {
    case outcome::nothing:
        if (answered) { forget_answer(node); }
        return;
    case outcome::late: return resend(queue, node, means);
    case outcome::refused:
        if (!waits(queue)) { return refuse(queue, node, answered); }
        [[fallthrough]]; // a sender that waits is told
    case outcome::done:
    case outcome::failed:
    case outcome::given_up: return end(queue, node, means, data);
    }
}

void log_resend(const note& n)
{
    const auto ack = static_cast<unsigned>(n.ack);
    const auto count = static_cast<int>(n.count);
    if (n.means == outcome::late) {
        log_print(LOG_HERE, "no ack msg (0x%x), send msg again (%d)!\n", ack, count);
    } else {
        log_print(LOG_HERE, "wrong ack (0x%x), send msg again (%d)!\n", ack, count);
    }
    if (n.error != 0) { print_send_error(n.error); }
}

void log_end(const note& n)
{
    const auto ack = static_cast<unsigned>(n.ack);
    if (waits(n.queue) && n.means == outcome::refused) { log_print(LOG_HERE, "wrong ack (0x%x)!\n", ack); }
    if (waits(n.queue) && n.means == outcome::failed) { log_print(LOG_HERE, "wrong msg and  recv_len, Read error!\n"); }
    if (n.means != outcome::given_up) { return; }
    switch (n.queue) {
    case ACK_QUEUE:
        log_print(LOG_HERE, "wrong ack (0x%x), send msg count (%d), not send again!\n", ack, static_cast<int>(n.count));
        return;
    case ACK_WAIT_QUEUE: log_print(LOG_HERE, "no ack msg (0x%x) write error!\n", ack); return;
    case READ_WAIT_QUEUE: log_print(LOG_HERE, "no resp msg (0x%x) read error no msg!\n", ack); return;
    default: return; // of an asynchronous read nothing is logged
    }
}

// Wakes its sender, or tells its requester; a write that was acknowledged well has no report.
void tell_end(const note& n)
{
    const bool well = n.means == outcome::done;
    if (waits(n.queue)) { return n.ended->sem.post(); }
    if (n.queue == READ_QUEUE || !well) { request_ended(n.ended, well ? 0 : -1); }
}

} // namespace

void AckCompleteMsg(QNode* node, const uint8_t* data, uint32_t) { complete(ACK_QUEUE, node, data); }
void AckWaitCompleteMsg(QNode* node, const uint8_t* data, uint32_t) { complete(ACK_WAIT_QUEUE, node, data); }
void ReadCompleteMsg(QNode* node, const uint8_t* data, uint32_t) { complete(READ_QUEUE, node, data); }
void ReadWaitCompleteMsg(QNode* node, const uint8_t* data, uint32_t) { complete(READ_WAIT_QUEUE, node, data); }

void open_pass(int index, completion_pass* pass)
{
    pass->used = 0;
    pass->met_a_request = false;
    open_passes[index] = pass;
}

void close_pass(completion_pass* pass)
{
    for (size_t i = 0; i < pass->used; ++i) {
        const note& n = pass->notes[i];
        if (n.ended == nullptr) {
            log_resend(n);
            continue;
        }
        log_end(n);
        tell_end(n);
        release(n.ended);
    }
}

void release(QNode* node)
{
    uint8_t* buf = node->buf;
    if (let_go_of_node(node)) { RawMsgFreeBuf(buf); }
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
