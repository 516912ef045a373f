// The frames of both protocols as the cards see them: what is looked at in a request before it is obeyed, and answers.
// Pure: bytes in, fields and a violation out; fields in, bytes out. For the farm, and tests that play a card
// themselves.
#pragma once

#include "cardsim/violations.h"

#include <algorithm>
#include <cstdint>
#include <span>
#include <vector>

namespace rvk {

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
