// One card: its register memory, and behind certain addresses of it the parts that mean something. The one place that
// knows which address belongs to which part. No lock, no clock, no faults: a farm has those.
#pragma once

#include "cardsim/checks.h"
#include "cardsim/firmware.h"
#include "cardsim/loader_port.h"
#include "cardsim/memory.h"
#include "cardsim/mistakes.h"
#include "cardsim/picture_port.h"
#include "cardsim/read_back.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace rvk {

// Result: the index into firmware_registers.
[[nodiscard]] std::optional<size_t> firmware_register_at(uint32_t addr);

class sim_card {
public:
    // Carries out a write, acknowledged or not. One that is_refused() has changed nothing.
    [[nodiscard]] mistake write(const request_fields& request);

    // Fills `out`, at least as many bytes as the read asked for, unless the mistake is one that is refused.
    [[nodiscard]] mistake read(const request_fields& request, std::span<uint8_t> out);

    card_memory registers; // what was written to the data ports of pictures and firmware is not in it
    picture_memory pictures;
    picture_records buffers;
    firmware_port firmware;
    std::array<loader_memory, loader_memories.size()> loaded;

    // The demo's buffer of which this write, once carried out, has ended the picture.
    [[nodiscard]] std::optional<uint8_t> demo_picture_ended(const request_fields& request) const;

private:
    mistake write_part(const request_fields& request);

    picture_port demo_port{true}, other_port{false};
    read_back_port read_back;
    std::array<loader_port, loader_memories.size()> loader;
};

} // namespace rvk
