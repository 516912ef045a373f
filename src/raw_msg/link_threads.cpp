#include "raw_msg/link_threads.h"

#include "base/counters.h"
#include "base/elapsed.h"
#include "base/pause.h"
#include "base/rt_thread.h"
#include "eth_raw/frame.h"
#include "eth_raw/link.h"
#include "main/log.h"
#include "queue/queue.h"
#include "raw_msg/completion.h"
#include "timer/timer.h"

namespace rvk {

void (*after_check_pass)();

namespace {

constexpr int receive_priority = 90, check_priority = 89; // ours, SCHED_FIFO
constexpr uint64_t check_period_us = 10'000;              // ours; shorter than a tick
constexpr uint64_t busy_pause_us = 100;                   // ours; between passes that found as many as they take

struct received_answer {
    uint8_t ack, slot, code;
    uint16_t model, seq, len;
    uint32_t addr;
    const uint8_t* data;
};

// One answer may end one request in each of the two queues of its kind: their sequence numbers are counted separately.
void offer(int index, const received_answer& a)
{
    if (a.code == code_read) {
        ReadRawMsg(index, a.addr, a.ack, a.seq, a.len, a.data);
        ReadWaitRawMsg(index, a.addr, a.ack, a.seq, a.len, a.data);
    } else {
        AckRawMsg(index, a.addr, a.ack, a.seq, a.len, a.data);
        AckWaitRawMsg(index, a.addr, a.ack, a.seq, a.len, a.data);
    }
}

// No other reply answers a request of ours.
constexpr bool is_an_answer(uint8_t code)
{
    return code == code_write_ack || code == code_ack_short || code == code_read;
}

// A pass that comes late delays every resend. Only the link's check thread writes these two.
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

void RawMsgRecv(int index)
{
    pin(__func__, index);
    log_print(LOG_HERE, "thread id : %d index = %d\n", kernel_thread_id(), index);
    for (;;) { receive_step(index); }
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

void receive_step(int index)
{
    static completion_pass passes[MAX_ETH]; // each its link's receive thread's own
    received_answer a{};
    a.data = RawSockMsgRecv(index, &a.ack, &a.model, &a.slot, &a.addr, &a.code, &a.seq, &a.len);
    if (a.data == nullptr) { return; }
    if (!is_an_answer(a.code)) { return link_count[index].dropped[drop::code].add(); }
    completion_pass& pass = passes[index];
    {
        const scoped_lock hold(find_check_mtx[index]);
        open_pass(index, &pass);
        offer(index, a);
    }
    if (!pass.met_a_request) { link_count[index].dropped[drop::no_request].add(); }
    close_pass(&pass);
}

bool check_step(int index)
{
    static completion_pass passes[MAX_ETH]; // each its link's check thread's own
    completion_pass& pass = passes[index];
    timerUpdate(index, queue_numbers);
    {
        const scoped_lock hold(find_check_mtx[index]);
        open_pass(index, &pass);
        CheckAckRawMsg(index);
        CheckAckWaitRawMsg(index);
        CheckReadRawMsg(index);
        CheckReadWaitRawMsg(index);
    }
    close_pass(&pass);
    return pass.used >= expired_max;
}

} // namespace rvk
