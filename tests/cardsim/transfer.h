// What a controller writes to bring an image into a card, for tests that play the controller themselves.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

namespace rvk {

struct firmware_transfer {
    std::array<std::vector<uint8_t>, 7> registers; // in the order in which they are written
    std::vector<std::vector<uint8_t>> pieces;      // of head and image, 1,024 bytes and the rest
};

[[nodiscard]] firmware_transfer transfer_of(std::span<const uint8_t> image, uint16_t model, uint8_t slot);

} // namespace rvk
