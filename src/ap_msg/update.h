// Update requests: what kind of image, for which generation of card, and by which way. Runs on the file-service
// thread; every request that comes this far is answered.
#pragma once

#include "ap_msg/mailbox.h"

#include <cstdint>
#include <span>

namespace rvk {

// Carries out one request and answers it. What it returns is of no use.
int32_t update_file_handle(const mailbox_area& message_head, const mailbox_area& data_head);

// Sends the response: 44 bytes, with the update type that the request named.
// payload  the request's payload
void update_file_resp(const mailbox_area& message_head, std::span<const uint8_t> payload, int32_t result);

} // namespace rvk
