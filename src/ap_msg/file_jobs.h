// The jobs of the file service, by the command that asks for them. Each gets the thread's own copies of the message
// head (40 bytes) and of the data head with its payload (14 bytes and `len`), and answers the requester itself where
// its kind has an answer. Called with file_mutex held.
#pragma once

#include "ap_msg/mailbox.h"

namespace rvk {

void write_file_handle(const mailbox_area& message_head, const mailbox_area& data_head);
void read_file_handle(const mailbox_area& message_head, const mailbox_area& data_head);
void update_file_handle(const mailbox_area& message_head, const mailbox_area& data_head);

} // namespace rvk
