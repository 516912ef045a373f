// The transfer of an FPGA image to a card: a temporary copy with a head in front, the file information, then the copy
// in acknowledged pieces. The copy is made block by block, so that an image is never whole in memory; it stays in place
// until the next transfer replaces it. Runs on the file-service thread, under file_mutex.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <sys/types.h>

namespace rvk {

inline constexpr size_t image_head_bytes = 256;                     // card: the head of the temporary copy
inline constexpr size_t image_size_at = 0, image_checksum_at = 130; // card: 4 and 2 bytes of it, the rest is zero

// Sends an image.
// path    a name that contains ".BIN", ".bin" or ".Bin"
// model   goes to the card inside the file information only: every write addresses model 0 of the slot, on link 0
// Result  0 when every step succeeded, else -1; a failure after the file information leaves the card a partial image
int32_t sys_update(const char* path, uint16_t model, uint8_t slot);

// Writes with acknowledgement, again after 10 ms when the card refuses; a card that does not answer is not asked again.
// attempts  in all; the rest as RawSockSendMsgWithAckWait
// Result    of the last attempt, 0 when there was none; the caller judges by *ack
int32_t RawSockSendMsgWithAckWait_Try_nTimes(int attempts, int index, uint16_t model, uint8_t slot, uint32_t addr,
                                             uint8_t code, std::span<const uint8_t> data, uint8_t* ack,
                                             uint32_t timeout_ticks);

// Makes an empty file by shell commands. A path that does not fit their 127 characters is refused and logged. Always 0.
int32_t update_temfile_creat(const char* path);

// Result: the file's size in bytes, 0 when it cannot be had.
[[nodiscard]] off_t get_file_size(const char* path);

// Nothing calls these.
int32_t update_firmware(uint8_t slot, uint16_t model, const char* path); // sys_update
int32_t update_temfile_del(const char* path);                            // by shell command; always 0
[[nodiscard]] off_t get_file_size_old(const char* path);                 // by opening the file; 0 when it cannot be had

} // namespace rvk
