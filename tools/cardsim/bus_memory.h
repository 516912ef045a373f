// The cards' side of the older block protocol: what is looked at in a request before it is obeyed, and the answers.
//
// Its packets name no card: a link has one memory of this kind, 4 GiB, apart from every register memory. Requests are
// checked whole; a wrong one is counted by name and neither carried out nor answered, since the protocol has no refusal
// of a write. Pure, no lock: the farm keeps the memory and decides what goes wrong on purpose.
#pragma once

#include "cardsim/memory.h"
#include "cardsim/mistakes.h"
#include "cardsim/replies.h"

#include <cstdint>
#include <span>

namespace rvk {

// A good request's fields. `data` points into the packet: `length` bytes of a write, none of a read.
struct bus_request {
    uint8_t type = 0; // bus_write or bus_read
    uint32_t addr = 0;
    uint32_t length = 0;
    std::span<const uint8_t> data;
};

// Whether a frame is a packet of this protocol, good or not: its addresses and reserved bytes tell it from the others.
[[nodiscard]] bool is_bus_packet(std::span<const uint8_t> frame);

// The first thing wrong decides; `out` is written when nothing is.
[[nodiscard]] mistake check_bus_request(std::span<const uint8_t> packet, bus_request& out);

// Answers, closed: read-back data (1 to 8,000 bytes), and the card's word alone, 0 meaning success.
void pack_bus_data(reply_frame& out, uint32_t addr, std::span<const uint8_t> data);
void pack_bus_response(reply_frame& out, uint32_t addr, uint8_t flag);

// Recomputes the checksum in the last two bytes, over everything in front of it.
void close_bus_answer(reply_frame& packet);

} // namespace rvk
