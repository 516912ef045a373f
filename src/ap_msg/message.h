// The messages exchanged with other processes: their layout, the identities, the heads of every kind of answer, and the
// outbox, which keeps answers for requesters whose queue is full. Any thread; nothing here waits. The one lock is the
// outbox's, held while it is searched and while kept messages are offered; nothing is logged under it.
#pragma once

#include "base/picture.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace rvk {

struct QNode;

// Offsets in a message, then sizes, little-endian.
namespace message {
inline constexpr size_t aptid = 0, word1 = 4, length = 8, result = 12;          // 4 4 4 4  the outer head
inline constexpr size_t msg_type = 16, msg_class = 18, data_len = 20;           // 2 2 4
inline constexpr size_t module = 24, id = 25, code = 26, slot = 27, model = 28; // 1 1 1 1 2  the data head, 14 bytes
inline constexpr size_t seq = 30, addr = 32, len = 36;                          // 2 4 2
inline constexpr size_t payload = 38;
inline constexpr size_t data_head = module;
} // namespace message

// Offsets from the payload's first byte, of a picture's write or read-back and of an update.
namespace picture_job {
inline constexpr size_t hor = 0, ver = 4, path = 8; // 4 4 and text to its zero byte
}
namespace update_job {
inline constexpr size_t type = 0, path = 4; // 4 and text to its zero byte
}

inline constexpr size_t message_head_bytes = 40; // counted for the head, though the payload starts two bytes earlier
inline constexpr size_t data_head_bytes = 14;    // message
inline constexpr size_t message_bytes_max = message_head_bytes + 65'535;    // message: `len` has 16 bits
inline constexpr size_t mailbox_bytes = 1024;                               // ours: a file job's data head and payload
inline constexpr size_t file_payload_max = mailbox_bytes - data_head_bytes; // 1,010
inline constexpr size_t picture_path_max = file_payload_max - picture_job::path - 1; // 1,001 characters
inline constexpr size_t update_path_max = file_payload_max - update_job::path - 1;   // 1,005
inline constexpr size_t read_back_path_max = 255;                                    // ours
inline constexpr size_t image_name_max = 99;                                         // ours: a longer name is cut
inline constexpr int16_t data_class = 28;         // message: msg_class of a data message, with msg_type 0 or 1
inline constexpr size_t greeting_text_bytes = 32; // message
inline constexpr uint8_t module_self = 0x3B, module_companion = 0x3C, module_test = 0x3A; // the system's module numbers

// Command codes.
namespace command {
inline constexpr uint8_t read = 0x00, write = 0x01, write_ack = 0x02;
inline constexpr uint8_t file_write = 0xEE, file_read = 0xDD, update = 0xEF, greeting = 0xF0;
} // namespace command

// Types of updates: images of microcontrollers, then of FPGAs.
namespace update_type {
inline constexpr uint32_t mcu_input = 0x16, mcu_output = 0x17, mcu_vpu = 0x18;
inline constexpr uint32_t fpga_input = 0x19, fpga_input_golden = 0x1C, fpga_last = 0x1E;
} // namespace update_type

// Of the path of a microcontroller image, which a shell gets: plain characters only, and no option.
constexpr bool is_plain_path(std::string_view path)
{
    constexpr char plain[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ/._+-=,@%:";
    const std::string_view name = path.substr(path.rfind('/') + 1); // npos + 1 is 0
    return path.find_first_not_of(plain) == path.npos && !path.starts_with('-') && !name.starts_with('-');
}

// Identity of a module of a board: board number, 0x0A, module number, 0.
constexpr uint32_t identity_of(uint8_t board, uint8_t module)
{
    return static_cast<uint32_t>(board) << 24 | 0x000A0000u | static_cast<uint32_t>(module) << 8;
}

// Computed afresh from the board's number each time.
[[nodiscard]] uint32_t own_identity();
[[nodiscard]] uint32_t companion_identity(); // the other process of this board whose writes are always waited for

// The link of a unit id, and the unit id of a link: one of each is in use.
[[nodiscard]] constexpr int GetIndexById(uint8_t) { return 0; }
[[nodiscard]] constexpr uint8_t GetIdByIndex(int) { return 254; }

// A command, parsed once. Its memory is the message's, or the file thread's copy of it.
struct received_command {
    const uint8_t* head; // the message's first 40 bytes
    uint32_t requester;
    int index;
    uint8_t code, slot;
    uint16_t model, seq, len;
    uint32_t addr;
    std::span<const uint8_t> payload; // what there is of `len` bytes
};
[[nodiscard]] received_command parse_command(const uint8_t* head, std::span<const uint8_t> behind_data_head);

using job_path = std::array<char, mailbox_bytes>; // zero-terminated; any path that the mailbox carries fits

// Copies the text at an offset of a payload. Result: 0; -1, logged: not terminated within it, or above `path_max`.
[[nodiscard]] int32_t read_path(std::span<const uint8_t> payload, size_t at, size_t path_max, job_path* path);

// Reads a picture job's size and path. Result: 0; -1, logged: too short, such a path, a picture that no card takes.
[[nodiscard]] int32_t read_picture_job(std::span<const uint8_t> payload, size_t path_max, picture_size* size,
                                       job_path* path);

// Result: the payload of a zero-filled message buffer for n payload bytes, whose handle it is; null when the pool has
// none, which is logged. Whoever got it owns it until it is freed, or until it is the destination of a read that was
// filed.
[[nodiscard]] uint8_t* ApMsgBuffGet(unsigned n);
[[nodiscard]] uint8_t* ApMsgBuffHeadGet(uint8_t* handle); // where the message starts
void ApMsgBuffFree(uint8_t* handle);

// Sends a message of n payload bytes, n + 40 in all; the second: without payload. While the requester's queue is full
// the outbox keeps a copy, each requester's in their order, and offers it again for 10 s.
// Result  0 when it was sent or kept; negative, logged and counted, when it was dropped
int ApipcDataSend(uint32_t destination, const uint8_t* message, uint32_t n);
int ApipcDataSendAck(uint32_t destination, const uint8_t* message);

// Offers what is kept, drops what is too old. A link's check thread after each pass; with no link, the status thread.
void offer_outbox();

// Fills the 38 bytes of a reply's head: the command's, with our identity and module, the result and the length.
void make_reply(uint8_t* head, const received_command& to, int32_t result, uint32_t length);
void send_reply(const received_command& to, int32_t result); // one without payload

// Answers an update: a head, and the update type as the command's payload has it; bytes that it lacks are zero.
void send_update_response(const received_command& to, int32_t result);

// Answers a file command that is not carried out with -1, in the way of its kind; a read-back has no answer.
void refuse_file_job(const received_command& to);

void apipc_first(uint32_t requester); // sends the greeting

// The report of an acknowledged write that nobody waits for.
[[nodiscard]] std::array<uint8_t, message_head_bytes> write_report(int index, uint32_t addr, int32_t result);

// Report the end of an asynchronous request, by the kind of its node: what raw_msg is given as `request_ended`. The
// message's head is printed on the console first. Called by a link's threads with no lock, the node held.
void report_end(const QNode* node, int32_t result); // gives a read's message buffer back
void WriteAckResultReport(const QNode* node, int32_t result);
void ReadResultReport(const QNode* node, int32_t result); // with result 0 the node's recv_len bytes at its `dest`

// Nothing calls these. A read request of 10 bytes at 0x10000 to module 0x3A of this board; bytes on the console as
// "%02x ", with a line end before bytes 0, 16, 32 … and one more at the end.
void apipc_test();
void print_buf(const uint8_t* bytes, size_t count);

} // namespace rvk
