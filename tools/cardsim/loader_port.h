// The way in of the picture loader: two memories of a card, each with a data port that takes a piece's frames and a
// command register that says where the piece goes.
//
// A piece is at most 15,360 bytes in frames of 1,400 at the port's address, 1,400 further, and so on; the command that
// ends it carries the address in units of 8 bytes, the number of 64-byte bursts, and 1. Here a piece is put together
// first and stored with its command, so that one whose frames are not all there is not stored. Pure state, no lock.
#pragma once

#include "cardsim/checks.h"
#include "cardsim/memory.h"
#include "cardsim/mistakes.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace rvk {

inline constexpr size_t loader_piece_max = 15'360, loader_burst = 64, loader_word = 8; // bytes

struct loader_registers {
    uint32_t data, command;
};
inline constexpr std::array<loader_registers, 2> loader_memories{{{0xB0000, 0xA0001}, {0xF0000, 0xE0001}}};

// What a memory holds, by byte, and where it was written.
struct loader_memory {
    sparse_pages<size_t{64} * 1024> pages;
    extent_list written;
};

class loader_port {
public:
    // offset  of the frame's address from the data port's
    [[nodiscard]] mistake data(size_t offset, std::span<const uint8_t> frame);
    [[nodiscard]] mistake command(std::span<const uint8_t> block, loader_memory& memory);

private:
    std::vector<uint8_t> piece;
};

// Which memory's data port, or command register, a write is to: only those of model 0, slot 0 are, where the loader
// writes. Elsewhere these addresses are plain memory, which a longer write may run across.
[[nodiscard]] std::optional<size_t> loader_data_at(const request_fields& request);
[[nodiscard]] std::optional<size_t> loader_command_at(const request_fields& request);

// A picture that the picture loader is to have put into memory 0 or 1: the cards are not told its size.
struct loaded_picture {
    uint8_t memory = 0;
    uint32_t addr = 0; // as the loader was given it, in units of 8 bytes
    uint16_t hor = 0, ver = 0;
};

} // namespace rvk
