// A card's firmware memory: takes one file after another, register by register and piece by piece, checks what a card
// checks, and keeps every file that it acknowledged to the last byte. A part of a file is never kept as a whole one.
// Pure state; a farm's lock guards it.
#pragma once

#include "cardsim/mistakes.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace rvk {

inline constexpr size_t firmware_piece_bytes = 1024;
inline constexpr size_t firmware_head_bytes = 256; // size of the image at 0, checksum at 130, the rest zero

struct firmware_file {
    uint16_t device_type = 0;   // the model that the controller named
    std::vector<uint8_t> bytes; // head and image
    [[nodiscard]] std::span<const uint8_t> image() const { return std::span(bytes).subspan(firmware_head_bytes); }
};

// The transfer that is running, or how far the last one came.
struct firmware_progress {
    size_t registers = 0;   // of the file information, written so far
    uint32_t total = 0;     // bytes announced
    uint64_t received = 0;  // bytes taken
    uint64_t abandoned = 0; // transfers that another one followed before they were whole
    uint64_t completed = 0; // files acknowledged
    bool whole = false;     // the last one
    bool operator==(const firmware_progress&) const = default;
};

class firmware_port {
public:
    // index  into firmware_registers
    // slot   the card's own, which the last register must name
    [[nodiscard]] mistake write_register(size_t index, std::span<const uint8_t> bytes, uint8_t slot);
    [[nodiscard]] mistake piece(std::span<const uint8_t> bytes);

    [[nodiscard]] uint32_t next_piece() const; // its number, from 1; 0 while none is due
    [[nodiscard]] const firmware_progress& progress() const { return state; }
    [[nodiscard]] const std::vector<firmware_file>& files() const { return kept; }

private:
    mistake check_value(size_t index, std::span<const uint8_t> bytes, uint8_t slot) const;

    firmware_progress state;
    firmware_file coming;
    std::vector<firmware_file> kept;
};

} // namespace rvk
