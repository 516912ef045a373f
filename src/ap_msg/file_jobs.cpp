// A daemon without the file jobs: each is refused with a line, and answered where its kind has an answer.
#include "ap_msg/file_jobs.h"

#include "ap_msg/message.h"
#include "main/log.h"

namespace rvk {
namespace {

void log_refused(const mailbox_area& message_head)
{
    log_print(LOG_HERE, "file command 0x%02x refused: this daemon has no file jobs\n", message_head[message::code]);
}

} // namespace

void write_file_handle(const mailbox_area& message_head, const mailbox_area&)
{
    log_refused(message_head);
    send_reply(message_head.data(), -1);
}

void read_file_handle(const mailbox_area& message_head, const mailbox_area&) { log_refused(message_head); }

void update_file_handle(const mailbox_area& message_head, const mailbox_area& data_head)
{
    log_refused(message_head);
    send_update_response(message_head.data(), data_head.data() + data_head_bytes, -1);
}

} // namespace rvk
