// The transfer of an FPGA image to a card: a temporary copy with a head in front, the file information, then the copy
// in acknowledged pieces. Runs on the file-service thread; nothing survives a transfer but the temporary file.
#pragma once

#include <cstdint>
#include <span>
#include <sys/types.h>

namespace rvk {

// Sends an image.
//
// path    a name that contains ".BIN", ".bin" or ".Bin"
// model   goes to the card inside the file information only: every write addresses model 0 of the slot, on link 0
// Result  0 when every step succeeded, else -1; a failure after the file information leaves the card a partial image
int32_t sys_update(const char* path, uint16_t model, uint8_t slot);

// The same with its arguments in another order; nothing calls it.
int32_t update_firmware(uint8_t slot, uint16_t model, const char* path);

// Writes with acknowledgement, again after 10 ms when the card refuses; a card that does not answer is not asked again.
// attempts  in all; the rest as RawSockSendMsgWithAckWait
// Result    of the last attempt, 0 when there was none; the caller judges by *ack
int32_t RawSockSendMsgWithAckWait_Try_nTimes(int attempts, int index, uint16_t model, uint8_t slot, uint32_t addr,
                                             uint8_t code, std::span<const uint8_t> data, uint8_t* ack,
                                             uint32_t timeout_ticks);

// Makes an empty file by shell commands; removes it by one (nothing calls that). A path that does not fit their 127
// characters is refused and logged. Always 0.
int32_t update_temfile_creat(const char* path);
int32_t update_temfile_del(const char* path);

// Result: the file's size in bytes, 0 when it cannot be had.
[[nodiscard]] off_t get_file_size(const char* path);
[[nodiscard]] off_t get_file_size_old(const char* path); // by opening it; nothing calls it

} // namespace rvk
