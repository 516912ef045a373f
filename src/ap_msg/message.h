// The messages exchanged with other processes: a 40-byte head and a payload that starts at byte 38 of it. Knows the
// layout, the identities, the unit ids and the heads of all kinds of answers; decides nothing. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace rvk {

// Offsets from the message's first byte, little-endian.
namespace message {
inline constexpr size_t aptid = 0, word1 = 4, length = 8, result = 12;          // 4 4 4 4  the outer head
inline constexpr size_t msg_type = 16, msg_class = 18, data_len = 20;           // 2 2 4
inline constexpr size_t module = 24, id = 25, code = 26, slot = 27, model = 28; // 1 1 1 1 2  the data head, 14 bytes
inline constexpr size_t seq = 30, addr = 32, len = 36;                          // 2 4 2
inline constexpr size_t payload = 38;
inline constexpr size_t data_head = module;
} // namespace message

inline constexpr size_t message_head_bytes = 40; // counted for the head, though the payload starts two bytes earlier
inline constexpr size_t data_head_bytes = 14;    // message
inline constexpr size_t message_len_max = 65535; // message: `len` has 16 bits
inline constexpr size_t message_bytes_max = message_head_bytes + message_len_max;
inline constexpr int16_t data_class = 28; // message: msg_class of a data message, with msg_type 0 or 1
inline constexpr uint8_t module_self = 0x3B, module_companion = 0x3C, module_test = 0x3A; // the system's module numbers
inline constexpr size_t greeting_text_bytes = 32;                                         // message

// Command codes.
namespace command {
inline constexpr uint8_t read = 0x00, write = 0x01, write_ack = 0x02;
inline constexpr uint8_t file_write = 0xEE, file_read = 0xDD, update = 0xEF, greeting = 0xF0;
} // namespace command

// Identity of a module of a board: board number, 0x0A, module number, 0.
constexpr uint32_t identity_of(uint8_t board, uint8_t module)
{
    return static_cast<uint32_t>(board) << 24 | 0x000A0000u | static_cast<uint32_t>(module) << 8;
}
} // namespace rvk
