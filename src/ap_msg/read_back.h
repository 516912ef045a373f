// Card memory read back into files: the file service's job of that kind, on its thread. index, model, slot: the card. A
// step that a card does not answer leaves zeros; the job goes on, and the files are the only result.
#pragma once

#include "ap_msg/mailbox.h"

#include <cstdint>
#include <span>

namespace rvk {

// Carries out one job: the raw picture into the file named, and the same as a bottom-up BMP beside it. Nothing is
// answered. Result: always 0.
int32_t read_file_handle(const mailbox_area& message_head, const mailbox_area& data_head);

// Reads a picture's lines, each padded to a multiple of 64 bytes in card memory, into `dest` without padding.
// start  card address in 8-byte words
// dest   hor x ver x 4 bytes
void DDR2Read(int index, uint16_t model, uint8_t slot, uint32_t start, uint16_t hor, uint16_t ver,
              std::span<uint8_t> dest);

// Reads one step of at most 1,400 bytes, as many as `dest` takes. Result: of the read of the data.
int32_t DDR2ReadProcess(int index, uint16_t model, uint8_t slot, uint32_t addr, std::span<uint8_t> dest);

} // namespace rvk
