// One card: its register memory, and behind certain addresses of it the parts that mean something. The one place that
// knows which address belongs to which part. No lock, no clock, no faults: a farm has those.
#pragma once

#include "cardsim/frames.h"
#include "cardsim/ports.h"

#include <optional>

namespace rvk {

// Card: registers of single cards of model 0 that injected faults and the log of the playback know.
struct card_register {
    uint8_t slot;
    uint32_t addr;
};
inline constexpr card_register generation_at{generation_slot, generation_register};
inline constexpr card_register readiness_at{playback_slot, readiness_register};
inline constexpr card_register lvds_at{lvds_slot, lvds_register};

class sim_card {
public:
    // Carries out a write, acknowledged or not. One that is_refused() has changed nothing.
    [[nodiscard]] violation write(const request_fields& request);

    // Fills `out`, at least as many bytes as the read asked for, unless the violation is one that is refused.
    [[nodiscard]] violation read(const request_fields& request, std::span<uint8_t> out);

    // The demo's buffer of which this write, once carried out, has ended the picture.
    [[nodiscard]] std::optional<uint8_t> demo_picture_ended(const request_fields& request) const;

    card_memory registers{UINT32_MAX}; // what was written to the data ports of pictures and firmware is not in it
    card_memory pictures{UINT64_MAX, false};
    picture_records buffers;
    firmware_port firmware;
    std::array<loader_port, loader_data.size()> loaders;

private:
    violation write_part(const request_fields& request);

    picture_port demo_port{true}, other_port{false};
    read_back_port read_back;
};

} // namespace rvk
