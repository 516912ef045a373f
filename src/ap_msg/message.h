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

// The offset of a field within the data head alone.
constexpr size_t in_data_head(size_t offset) { return offset - data_head; }
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

// Computed afresh from the board's number each time.
[[nodiscard]] uint32_t own_identity();
[[nodiscard]] uint32_t companion_identity(); // the other process of this board whose writes are always waited for

// Result: the link a unit id stands for (240, 253, 254 and any other: link 0); the unit id of any link (254).
[[nodiscard]] int GetIndexById(uint8_t id);
[[nodiscard]] uint8_t GetIdByIndex(int index);

// Result: the payload of a zero-filled message buffer for n payload bytes, whose handle it is; null when the pool has
// none. Whoever got it owns it until it is freed, or until it is the destination of a read that was filed.
[[nodiscard]] uint8_t* ApMsgBuffGet(unsigned n);
[[nodiscard]] uint8_t* ApMsgBuffHeadGet(uint8_t* handle); // where the message starts
void ApMsgBuffFree(uint8_t* handle);

// Sends head and n payload bytes, n + 40 bytes in all; the head alone. What a full queue does not take waits in the
// outbox. Result: the messaging service's, 0 also for what waits.
int ApipcDataSend(uint32_t destination, const uint8_t* message, uint32_t n);
int ApipcDataSendAck(uint32_t destination, const uint8_t* message);

// Turns the copy of a request's head into the head of its reply.
// length  payload bytes of the reply, 0 for none
// Result  whom to send it to
uint32_t make_reply(uint8_t* head, int32_t result, uint32_t length);

// Answers a request with a head alone. The request's own 40 bytes are not changed.
void send_reply(const uint8_t* request_head, int32_t result);

// Answers an update request: its head, and the update type it named.
// payload  the request's; its first four bytes are the type, what is missing of them goes back as zero
void send_update_response(const uint8_t* request_head, std::span<const uint8_t> payload, int32_t result);

// Answers a file command that is not carried out with -1, in the way of its kind; a read-back has no answer.
void refuse_file_job(const uint8_t* request_head, std::span<const uint8_t> payload);

// Fills all 40 bytes of the report of an acknowledged write that nobody waits for.
void make_write_report(uint8_t* head, int index, uint32_t addr, int32_t result);

// Fills what a read's report changes in the head of the message buffer that holds its data.
void make_read_report(uint8_t* head, int index, uint32_t addr, uint32_t recv_len, int32_t result);

// Fills the head of the greeting; its payload is 32 bytes of text and 40 zero bytes.
inline constexpr uint32_t greeting_payload_bytes = 72; // message
void make_greeting(uint8_t* head);

// Prints bytes on the console as "%02x ", with a line end before bytes 0, 16, 32 … and one more at the end.
void print_buf(const uint8_t* bytes, size_t count);

} // namespace rvk
