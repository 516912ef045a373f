// Pictures into card memory: the file service's job of that kind, and the write itself, which the demo uses too.
//
// index, model, slot: the card. A picture is hor x ver pixels of 4 bytes, sent as they stand; `buffer` is the number of
// the card's picture buffer. hor and ver are at most 65,535 each, and below 2^29 pixels together: jobs are refused
// otherwise. A picture that cannot be had from its file is written black.
#pragma once

#include "ap_msg/mailbox.h"
#include "base/mutex.h"

#include <cstdint>
#include <span>

namespace rvk {

extern fair_mutex
    pic_mutex; // one picture into card memory: set-up, start, data, end are never interleaved with another's

// Carries out one job and answers its requester. Result: what the answer carries.
int32_t write_file_handle(const mailbox_area& message_head, const mailbox_area& data_head);

// Writes a file's picture. Result: DDR2Write's, or after a failure that of the black picture.
int32_t write_file_handler(int index, uint8_t slot, uint16_t model, uint32_t buffer, uint32_t hor, uint32_t ver,
                           const char* path);

// The same; nothing calls it.
int32_t write_file_handle_test(int index, uint8_t slot, uint16_t model, uint32_t buffer, uint32_t hor, uint32_t ver,
                               const char* path);

// Writes a black picture. Result: DDR2Write's, -1 when there is no memory for it.
int32_t write_file_handler_excp(int index, uint16_t model, uint8_t slot, uint32_t buffer, uint32_t hor, uint32_t ver);

// Answers a picture job.
void write_file_resp(const mailbox_area& message_head, int32_t result);

// Writes hor x ver pixels into a picture buffer: three acknowledged control writes, and between the second and the
// third the data in plain frames of 1,400 bytes.
//
// data     at least hor x ver x 4 bytes; null is refused
// Result   0 once data is given, whatever the card answered; -1 without
// Threads  the file service's and the demo's; holds pic_mutex throughout
int32_t DDR2Write(int index, uint16_t model, uint8_t slot, uint32_t buffer, uint16_t hor, uint16_t ver,
                  std::span<const uint8_t> data) RVK_EXCLUDES(pic_mutex);

} // namespace rvk
