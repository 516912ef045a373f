#include "ap_msg/file_service.h"

#include "ap_msg/file_request.h"
#include "ap_msg/mailbox.h"
#include "ap_msg/message.h"
#include "ap_msg/picture_write.h"
#include "ap_msg/read_back.h"
#include "ap_msg/update.h"
#include "base/bytes.h"
#include "base/counters.h"
#include "base/rt_thread.h"
#include "main/log.h"

namespace rvk {
namespace {

constexpr int file_priority = 95; // ours, SCHED_FIFO: above the IPC receive thread

// One that came between the start of the commands' thread and the failure to start ours.
void refuse_left_job()
{
    const scoped_lock hold(file_mutex);
    refuse_file_job(file_write_head.data(), file_request_of(file_name_data).payload);
}

void note_end(job kind, const mailbox_area& message_head)
{
    daemon_count.last_requester[kind].set(load_le32(&message_head[message::aptid]));
    daemon_count.last_steps[kind].set(daemon_count.steps.get());
    daemon_count.last_unanswered[kind].set(daemon_count.steps_unanswered.get());
    // Last: who reads it first sees this job's other figures.
    daemon_count.last_number[kind].set(load_le16(&message_head[message::seq]));
}

void run_job(const mailbox_area& message_head, const mailbox_area& data_head) RVK_REQUIRES(file_mutex)
{
    daemon_count.steps.set(0);
    daemon_count.steps_unanswered.set(0);
    runs_a_job = true;
    switch (data_head[message::in_data_head(message::code)]) {
    case command::file_write:
        count_job(job::picture_write, write_file_handle(message_head, data_head) == 0);
        note_end(job::picture_write, message_head);
        break;
    case command::file_read:
        read_file_handle(message_head, data_head);
        note_end(job::read_back, message_head);
        break;
    case command::update:
        gbUpdateProcessRunning = 1;
        count_job(job::update, update_file_handle(message_head, data_head) == 0);
        note_end(job::update, message_head);
        gbUpdateProcessRunning = 0;
        break;
    default: break; // the dispatch hands over nothing else
    }
}

} // namespace

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
    mailbox_wait();
    {
        const scoped_lock hold(file_mutex);
        const mailbox_area data_head = file_name_data;
        const mailbox_area message_head = file_write_head;
        run_job(message_head, data_head);
    }
    mailbox_free();
}

} // namespace rvk
