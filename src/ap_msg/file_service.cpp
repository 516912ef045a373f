// The mailbox and its thread. The jobs are in files of their own, so that a test of these two can replace them.
#include "ap_msg/file_service.h"

#include "base/counters.h"
#include "base/mutex.h"
#include "base/rt_thread.h"
#include "main/log.h"

#include <algorithm>

namespace rvk {

mutex file_mutex;
fair_mutex demo_mutex;
mailbox_area file_name_data;
mailbox_area file_write_head;
std::atomic<int> gbUpdateProcessRunning{0};

namespace {

constexpr int file_priority = 95; // ours, SCHED_FIFO: above the IPC receive thread

// Both are ready before main starts, so before any thread can use them.
semaphore sem_file_write{0}; // a job is in the slot
semaphore sem_slot_free{1};
bool closed RVK_GUARDED_BY(file_mutex);
bool used RVK_GUARDED_BY(file_mutex); // a job was put: without its thread it is in the slot still

void fill(mailbox_area* area, std::span<const uint8_t> bytes)
{
    area->fill(0);
    std::copy_n(bytes.begin(), std::min(bytes.size(), area->size()), area->begin());
}

received_command job_in(const mailbox_area& message_head, const mailbox_area& data_head)
{
    return parse_command(message_head.data(), std::span(data_head).subspan(data_head_bytes));
}

// Refuses the job put between the command thread's start and this thread's failure to start.
void refuse_left_job()
{
    const scoped_lock hold(file_mutex);
    refuse_file_job(job_in(file_write_head, file_name_data));
}

void note_end(job kind, const received_command& ended)
{
    daemon_count.last_requester[kind].set(ended.requester);
    daemon_count.last_steps[kind].set(daemon_count.steps.get());
    daemon_count.last_unanswered[kind].set(daemon_count.steps_unanswered.get());
    // Last: who reads it first sees this job's other figures.
    daemon_count.last_number[kind].set(ended.seq);
}

void run_job(const received_command& c) RVK_REQUIRES(file_mutex)
{
    daemon_count.steps.set(0);
    daemon_count.steps_unanswered.set(0);
    runs_a_job = true;
    switch (c.code) {
    case command::file_write:
        count_job(job::picture_write, write_file_handle(c) == 0);
        return note_end(job::picture_write, c);
    case command::file_read: read_file_handle(c); return note_end(job::read_back, c);
    case command::update:
        gbUpdateProcessRunning = 1;
        count_job(job::update, update_file_handle(c) == 0);
        note_end(job::update, c);
        gbUpdateProcessRunning = 0;
        break;
    default: break; // the dispatch hands over nothing else
    }
}

} // namespace

int32_t mailbox_put(std::span<const uint8_t> data, std::span<const uint8_t> head)
{
    sem_slot_free.wait();
    {
        const scoped_lock hold(file_mutex);
        if (closed) {
            sem_slot_free.post(); // for whoever comes next
            return -1;
        }
        used = true;
        fill(&file_name_data, data);
        fill(&file_write_head, head);
    }
    sem_file_write.post();
    return 0;
}

bool mailbox_close()
{
    const scoped_lock hold(file_mutex);
    closed = true;
    sem_slot_free.post();
    return used;
}

int32_t WexApFileTaskCreate(int processor)
{
    if (start_thread("rvk-file", file_priority, ApMsgFileProc, processor, nullptr) == 0) { return 0; }
    log_print(LOG_HERE, "failed to create thread \n");
    if (mailbox_close()) { refuse_left_job(); }
    return -1;
}

void ApMsgFileProc(int processor)
{
    if (pin_to_processor(processor) != 0) {
        log_print(LOG_HERE, "%s : index %d sched_setaffinity failed\n", __func__, processor);
    }
    log_print(LOG_HERE, "file write  thread id : %d index = %d\n", kernel_thread_id(), processor);
    for (;;) { file_step(); }
}

void file_step()
{
    sem_file_write.wait();
    {
        const scoped_lock hold(file_mutex);
        const mailbox_area data_head = file_name_data;
        const mailbox_area message_head = file_write_head;
        run_job(job_in(message_head, data_head));
    }
    sem_slot_free.post();
}

} // namespace rvk
