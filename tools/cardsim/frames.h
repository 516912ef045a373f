// The frames of both protocols as the cards see them: what is looked at in a request before it is obeyed, and answers;
// and what a controller sends and should not: each violation by a name of its own, under which it is counted. What the
// cards do wrong on demand are injected faults (faults.h).
// Pure: bytes in, fields and a violation out; fields in, bytes out. For the farm, and tests that play a card
// themselves.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace rvk {

inline constexpr uint8_t ack_refused = 1; // ours: the status of a refusal

// One row each. A frame with a violation is neither carried out nor answered; a request that is wrong only for what it
// asks of its register is answered, where a good one is, with the status ack_refused and no data. A tolerated one is
// carried out and counted.
enum class violation : uint8_t {
    none,
    foreign,           // not from the controller's address: other people's traffic, no violation
    wrong_destination, // from here on: a frame that no controller should send
    wrong_type,
    wrong_sync,
    too_short_for_header,
    unknown_code,
    len_zero,
    len_above_max,
    shorter_than_len, // the frame ends before the payload area and checksum that code and len call for
    longer_than_len,
    wrong_checksum,
    padding_not_zero,   // bytes between a short write's data and the end of its 64
    read_area_not_zero, // the 64 bytes that a read carries
    plain_write_numbered,
    // From here on: a good frame, wrong for its register. A picture's control writes (6, 1 and 1 bytes) and its data.
    picture_control_length, // neither 6 bytes nor 1
    picture_command,        // a set-up whose first byte is not 0, or a single byte that is neither 1 nor 0
    picture_buffer_number,  // through 0x7080 another number than 16 to 25
    picture_too_large,      // does not fit the memory of a buffer
    picture_not_ended,      // a set-up while a picture is being taken; tolerated, that picture stays incomplete
    picture_start_order,    // start without a set-up before it
    picture_end_order,      // end without a start before it
    picture_data_order,     // data before start or after end
    picture_frame_size,     // data behind a frame that was not full, which only the last may be; also at its end
    picture_data_excess,    // data beyond hor x ver x 4 bytes; also at the end of such a picture
    picture_data_missing,   // end before hor x ver x 4 bytes came
    // Reading back card memory: command, start, status, data.
    read_command_length, // not 7 bytes
    read_command_value,  // no units or more than 22, or a last byte that is not 0
    read_start_value,    // not the single byte 1
    read_start_order,    // start without a command before it
    read_status_order,   // status read without a start before it
    read_status_skipped, // data read without the status before it; tolerated
    read_window_order,   // data read without a start before it
    read_window_size,    // not the number of units that the command said
    // A firmware file: seven registers of file information, then its pieces.
    firmware_register_length,
    firmware_register_order, // another register than the next one; the first may come at any time
    firmware_register_value, // sizes that differ or hold no head, a number of files that is not 1, another card's slot
    firmware_piece_order,    // a piece before the last register or behind a whole file
    firmware_piece_size,     // not 1,024 bytes, or the rest
    firmware_head_size,      // the last piece, when the size in the head is not that of the image
    firmware_head_checksum,  // the last piece, when the checksum in the head is not that of the image
    firmware_head_not_zero,  // the last piece, when the rest of the head is not zero
    // The picture loader's pieces. A wrong command drops its piece.
    loader_data_order,      // not at the address behind the frame before, or behind a frame that was not full
    loader_data_excess,     // more than 15,360 bytes in a piece
    loader_piece_abandoned, // a piece begins while another has had no command; tolerated, the other is lost
    loader_command_length,  // not 7 bytes
    loader_command_order,   // a command without data before it
    loader_command_value,   // not the piece's number of bursts, or a last byte that is not 1
    // Packets of the older block protocol; none is answered.
    bus_packet_length, // the length field is not the packet's length
    bus_packet_type,   // neither a write nor a read
    bus_reserved_byte, // not zero
    bus_data_length,   // none, more than 8,000 bytes, or not what the data area holds
    bus_checksum,
    bus_area_not_zero, // behind a short write's data, or in a read's area
};
inline constexpr auto first_violation = static_cast<size_t>(violation::wrong_destination);
inline constexpr auto first_of_registers = static_cast<size_t>(violation::picture_control_length);
inline constexpr size_t violation_count = static_cast<size_t>(violation::bus_area_not_zero) + 1;

constexpr bool is_refused(violation v)
{
    using enum violation;
    return v != none && v != picture_not_ended && v != read_status_skipped && v != loader_piece_abandoned;
}

inline constexpr size_t reply_data_max = 2000; // ours: more than any card gives, so that too much can be sent
inline constexpr uint8_t filler = 0xA5;        // ours: bytes that nobody asked for

// A good request's fields. `data` points into the frame: `len` bytes of a write, none of a read. A packet of the older
// block protocol names no card, and its type is the code.
struct request_fields {
    uint16_t model = 0;
    uint8_t slot = 0;
    uint16_t seq = 0;
    uint8_t code = 0;
    uint32_t addr = 0;
    uint16_t len = 0;
    std::span<const uint8_t> data{};
};

using reply_frame = std::vector<uint8_t>; // one frame on its way out, of any length

// Checks one received frame of any length. The first thing wrong decides; `out` counts when there is none.
[[nodiscard]] violation check_request(std::span<const uint8_t> frame, request_fields& out);

// The answer to `request` with the card's status, the code of the answer, and its data (at most reply_data_max bytes).
void pack_reply(reply_frame& out, const request_fields& request, uint8_t status, uint8_t code,
                std::span<const uint8_t> data);

// Recomputes the checksum over everything between sync bytes and checksum, whatever `len` says.
void close_reply(reply_frame& frame);

// The same of the older block protocol: whether a frame is a packet of it, good or not, which its addresses and
// reserved bytes tell; the check; an answer of a type with its data (1 to 8,000 bytes), or the card's status alone.
[[nodiscard]] bool is_bus_packet(std::span<const uint8_t> frame);
[[nodiscard]] violation check_bus_request(std::span<const uint8_t> packet, request_fields& out);
void pack_bus_answer(reply_frame& out, uint8_t type, uint32_t addr, std::span<const uint8_t> data);
void close_bus_answer(reply_frame& packet);

[[nodiscard]] inline bool all_zero(std::span<const uint8_t> bytes)
{
    return std::all_of(bytes.begin(), bytes.end(), [](uint8_t b) { return b == 0; });
}

} // namespace rvk
