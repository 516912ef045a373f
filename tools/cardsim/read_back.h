// The registers through which card memory is read: command, start, status, data window, in this order for each step.
// Pure state; a farm's lock guards it.
#pragma once

#include "cardsim/mistakes.h"
#include "cardsim/picture_port.h"

#include <cstdint>
#include <span>

namespace rvk {

inline constexpr uint8_t read_done = 1; // ours: what the status register says

class read_back_port {
public:
    [[nodiscard]] mistake command(std::span<const uint8_t> bytes); // 7 bytes: address in words, units, 0
    [[nodiscard]] mistake start(std::span<const uint8_t> bytes);
    [[nodiscard]] mistake status();
    // Fills `out`, as many bytes as the read asked for, unless the mistake is one that is refused.
    [[nodiscard]] mistake window(const picture_memory& memory, std::span<uint8_t> out);

private:
    enum class phase : uint8_t { idle, commanded, started, looked_at };

    phase now = phase::idle;
    uint64_t from = 0;  // byte in card memory
    uint32_t units = 0; // of 64 bytes
};

} // namespace rvk
