#include "raw_msg/link_threads.h"

#include "base/clock.h"
#include "base/counters.h"
#include "base/rt_thread.h"
#include "eth_raw/frame.h"
#include "eth_raw/link.h"
#include "main/log.h"
#include "timer/timer.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

namespace rvk {

mutex find_check_mtx[MAX_ETH];
end_of_request request_ended;
void (*after_check_pass)();

namespace {

constexpr int receive_priority = 90, check_priority = 89; // ours, SCHED_FIFO
constexpr uint64_t check_period_us = 10'000;              // ours; shorter than a tick
constexpr uint64_t busy_pause_us = 100;                   // ours; between passes that found as many as they take
constexpr uint32_t give_up_count = 4;      // ours: expiries, counted from 1, that end an asynchronous request
constexpr uint32_t give_up_count_wait = 3; // ours: expiries, counted from 0, that end a synchronous one
constexpr uint16_t refusals_at_once = 32;  // ours: resent at once; later ones, to spare the link, at an expiry

// What is deferred until the lock is released: of one request, what is to be logged and done.
struct deferred {
    QNode* ended; // the ended request, referenced; null of a resend, whose node may be freed by now
    int queue;
    outcome means;
    int32_t ack;    // that was decided on
    uint32_t count; // expiries, likewise
    int error;      // errno of a resend that failed
};

// Of one check pass at most four queues' expiries, of one answer the two requests that it may end.
struct deferred_list {
    std::array<deferred, 4 * expired_max> entries;
    size_t used;
    bool met_a_request;
};
deferred_list* lists[MAX_ETH]; // in use; under find_check_mtx

void begin_list(int index, deferred_list* begun) RVK_REQUIRES(find_check_mtx[index])
{
    begun->used = 0;
    begun->met_a_request = false;
    lists[index] = begun;
}

void defer(const deferred& d, int index) { lists[index]->entries[lists[index]->used++] = d; }

outcome judge_expiry(int queue, const QNode& node)
{
    if (waits(queue)) { return node.count >= give_up_count_wait ? outcome::given_up : outcome::nothing; }
    if (node.kept_refusal != 0) { return outcome::refused; }
    return node.count >= give_up_count ? outcome::given_up : outcome::late;
}

// A synchronous reader is woken at once by a good answer without data, and by one that is too long.
outcome judge_answer(int queue, const QNode& node)
{
    if (node.ack == no_answer) { return outcome::nothing; } // a card that says "no answer" has said nothing
    if (node.ack != ack_good) { return outcome::refused; }
    if (!reads(queue)) { return outcome::done; }
    if (node.recv_len == 0) { return waits(queue) ? outcome::failed : outcome::nothing; }
    return node.recv_len <= frame_data_max || waits(queue) ? outcome::done : outcome::failed;
}

void forget_answer(QNode* node)
{
    node->ack = no_answer;
    node->recv_len = 0;
}

void resend(int queue, QNode* node, outcome why)
{
    deferred d{nullptr, queue, why, node->ack, node->count, 0};
    forget_answer(node);
    link_count[node->index].resends.add();
    // The timer runs, so the next expiry makes up for a resend that fails, or gives up.
    static_cast<void>(RawSockMsgSendAgain(node->index, node->buf, node->send_len, &d.error));
    timerStart(retry_ticks, &node->timer);
    defer(d, node->index);
}

void end(int queue, QNode* node, outcome how, const uint8_t* data)
{
    defer({node, queue, how, node->ack, node->count, 0}, node->index);
    timerStop(&node->timer);
    node->end = how;
    if (how == outcome::given_up) { link_count[node->index].given_up.add(); }
    if (how != outcome::done) {
        node->recv_len = 0;
    } else if (node->dest != nullptr && node->recv_len <= frame_data_max) { // of a longer answer nothing is copied
        node->recv_len = std::min(node->recv_len, node->dest_size);
        memcpy(node->dest, data, node->recv_len);
    }
    if (!waits(queue)) { node->count = 0; }
    add_reference(node);                                     // the list's
    static_cast<void>(queue_del(node->index, queue, &node)); // logs a count that went wrong; there is no one to tell
}

// Of an asynchronous request: when the refusal comes, or when the timer runs out for one that was kept.
void refuse(int queue, QNode* node, bool answered)
{
    if (!answered) {
        --node->count; // that expiry was no unanswered send
        node->ack = std::exchange(node->kept_refusal, uint8_t{0});
    } else if (++node->refusals >= refusals_max) {
        return end(queue, node, outcome::given_up, nullptr);
    } else if (node->refusals > refusals_at_once) {
        node->kept_refusal = static_cast<uint8_t>(node->ack);
        return forget_answer(node);
    }
    node->asked_us = monotonic_us();
    resend(queue, node, outcome::refused);
}

// Called back by queue_find, and by queue_check (data: null), under the link's find_check_mtx.
void complete(int queue, QNode* node, const uint8_t* data)
{
    const bool answered = data != nullptr;
    if (answered) { lists[node->index]->met_a_request = true; }
    const outcome means = answered ? judge_answer(queue, *node) : judge_expiry(queue, *node);
    const bool unusable = means == outcome::nothing || means == outcome::failed ||
                          (means == outcome::done && node->recv_len > frame_data_max);
    link_counters& figures = link_count[node->index];
    if (answered && unusable) { figures.dropped[drop::unusable].add(); }
    if (answered && means == outcome::refused) { figures.wrong_acks.add(); }
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

void log_resend(const deferred& d)
{
    const auto ack = static_cast<unsigned>(d.ack);
    const auto count = static_cast<int>(d.count);
    if (d.means == outcome::late) {
        log_print(LOG_HERE, "no ack msg (0x%x), send msg again (%d)!\n", ack, count);
    } else {
        log_print(LOG_HERE, "wrong ack (0x%x), send msg again (%d)!\n", ack, count);
    }
    if (d.error != 0) { print_send_error(d.error); }
}

// Nothing is logged of a good answer, nor of an asynchronous read, however it ended.
void log_end(const deferred& d)
{
    const auto ack = static_cast<unsigned>(d.ack);
    const bool waited = waits(d.queue), given_up = d.means == outcome::given_up;
    if (waited && d.means == outcome::refused) { log_print(LOG_HERE, "wrong ack (0x%x)!\n", ack); }
    if (waited && d.means == outcome::failed) { log_print(LOG_HERE, "wrong msg and  recv_len, Read error!\n"); }
    if (given_up && d.queue == ACK_QUEUE) {
        log_print(LOG_HERE, "wrong ack (0x%x), send msg count (%d), not send again!\n", ack, static_cast<int>(d.count));
    }
    if (given_up && d.queue == ACK_WAIT_QUEUE) { log_print(LOG_HERE, "no ack msg (0x%x) write error!\n", ack); }
    if (given_up && d.queue == READ_WAIT_QUEUE) { log_print(LOG_HERE, "no resp msg (0x%x) read error no msg!\n", ack); }
}

// Logs, wakes, reports and gives back; with no lock of a link held.
void run_deferred(const deferred_list& list)
{
    for (size_t i = 0; i < list.used; ++i) {
        const deferred& d = list.entries[i];
        if (d.ended == nullptr) {
            log_resend(d);
            continue;
        }
        log_end(d);
        const bool well = d.means == outcome::done;
        if (waits(d.queue)) {
            d.ended->sem.post();
        } else if (d.queue == READ_QUEUE || !well) { // a write that was acknowledged well has no report
            request_ended(d.ended, well ? 0 : -1);
        }
        drop_request(d.ended);
    }
}

// By kind of request: the handlers; what offers an answer to its queue; what deals with the expiries there.
void AckCompleteMsg(QNode* node, const uint8_t* data, uint32_t) { complete(ACK_QUEUE, node, data); }
void AckWaitCompleteMsg(QNode* node, const uint8_t* data, uint32_t) { complete(ACK_WAIT_QUEUE, node, data); }
void ReadCompleteMsg(QNode* node, const uint8_t* data, uint32_t) { complete(READ_QUEUE, node, data); }
void ReadWaitCompleteMsg(QNode* node, const uint8_t* data, uint32_t) { complete(READ_WAIT_QUEUE, node, data); }

struct received {
    uint8_t ack, slot, code;
    uint16_t model, seq, len;
    uint32_t addr;
    const uint8_t* data;
};

void offer(int index, int queue, completion_handler handler, const received& a)
{
    queue_find(index, queue, a.addr, a.ack, a.seq, a.len, handler, a.data);
}

void AckRawMsg(int index, const received& a) { offer(index, ACK_QUEUE, AckCompleteMsg, a); }
void AckWaitRawMsg(int index, const received& a) { offer(index, ACK_WAIT_QUEUE, AckWaitCompleteMsg, a); }
void ReadRawMsg(int index, const received& a) { offer(index, READ_QUEUE, ReadCompleteMsg, a); }
void ReadWaitRawMsg(int index, const received& a) { offer(index, READ_WAIT_QUEUE, ReadWaitCompleteMsg, a); }

void CheckAckRawMsg(int index) { queue_check(index, ACK_QUEUE, AckCompleteMsg); }
void CheckAckWaitRawMsg(int index) { queue_check(index, ACK_WAIT_QUEUE, AckWaitCompleteMsg); }
void CheckReadRawMsg(int index) { queue_check(index, READ_QUEUE, ReadCompleteMsg); }
void CheckReadWaitRawMsg(int index) { queue_check(index, READ_WAIT_QUEUE, ReadWaitCompleteMsg); }

// A pass that comes late delays every resend. The status thread sets check_gap_us back to 0.
void note_check_pass(int index)
{
    link_counters& figures = link_count[index];
    const uint32_t now = monotonic_us();
    const uint32_t before = figures.last_check_us.exchange(now, std::memory_order_relaxed);
    if (before != 0) { figures.check_gap_us.raise_to(now - before); }
}

void pin(const char* thread, int index)
{
    if (pin_to_processor(index) != 0) {
        log_print(LOG_HERE, "%s : index %d sched_setaffinity failed\n", thread, index);
    }
}

void RawMsgRecv(int index)
{
    pin(__func__, index);
    log_print(LOG_HERE, "thread id : %d index = %d\n", kernel_thread_id(), index);
    for (;; let_others_run(long_turn_us)) { receive_step(index); } // others: the check thread, below it
}

void RawMsgAckReadCheck(int index)
{
    pin(__func__, index);
    log_print(LOG_HERE, "thread1 id : %d index = %d\n", kernel_thread_id(), index);
    receive_ticks_here();
    for (;;) {
        note_check_pass(index);
        const bool more = check_step(index);
        if (after_check_pass != nullptr) { after_check_pass(); }
        pause_us(more ? busy_pause_us : check_period_us);
    }
}

int32_t create(const char* name, int priority, thread_body body, int index, pthread_t* out)
{
    log_print(LOG_HERE, "index=%d\n", index);
    if (is_link(index) && start_thread(name, priority, body, index, out) == 0) { return 0; }
    log_print(LOG_HERE, "failed to create thread \n");
    return -1;
}

} // namespace

int32_t RawMsgModuleInit(int index, pthread_t* recv, pthread_t* check)
{
    if (index < 0 || RawSockMsgInit(index) != 0) { return 0; }
    const bool receives = RawMsgRecvTaskCreate(index, recv) == 0;
    const bool checks = RawMsgRecvCheckTaskCreate(index, check) == 0;
    if (!receives || !checks) { g_eth_init[index].active = 0; } // nobody may wait for what no thread will see
    return 0;
}

void RawMsgModuleUnInit(int index) { RawSockMsgUnInit(index); }

int32_t RawMsgRecvTaskCreate(int index, pthread_t* out)
{
    return create("rvk-recv", receive_priority, RawMsgRecv, index, out);
}

int32_t RawMsgRecvCheckTaskCreate(int index, pthread_t* out)
{
    return create("rvk-check", check_priority, RawMsgAckReadCheck, index, out);
}

void receive_step(int index)
{
    static deferred_list own[MAX_ETH]; // each its link's receive thread's
    received a{};
    a.data = RawSockMsgRecv(index, &a.ack, &a.model, &a.slot, &a.addr, &a.code, &a.seq, &a.len);
    if (a.data == nullptr) { return; }
    const bool acknowledges = a.code == code_write_ack || a.code == code_ack_short;
    if (!acknowledges && a.code != code_read) { return link_count[index].dropped[drop::code].add(); }
    {
        const scoped_lock hold(find_check_mtx[index]);
        begin_list(index, &own[index]);
        // One answer may end one request in each of the two queues of its kind, whose numbers are counted separately.
        (acknowledges ? AckRawMsg : ReadRawMsg)(index, a);
        (acknowledges ? AckWaitRawMsg : ReadWaitRawMsg)(index, a);
    }
    if (!own[index].met_a_request) { link_count[index].dropped[drop::no_request].add(); }
    run_deferred(own[index]);
}

bool check_step(int index)
{
    static deferred_list own[MAX_ETH]; // each its link's check thread's
    timerUpdate(index, queue_numbers);
    {
        const scoped_lock hold(find_check_mtx[index]);
        begin_list(index, &own[index]);
        CheckAckRawMsg(index);
        CheckAckWaitRawMsg(index);
        CheckReadRawMsg(index);
        CheckReadWaitRawMsg(index);
    }
    run_deferred(own[index]);
    return own[index].used >= expired_max;
}

void drop_request(QNode* node)
{
    uint8_t* buf = node->buf;
    if (drop_reference(node)) { RawMsgFreeBuf(buf); }
}

} // namespace rvk
