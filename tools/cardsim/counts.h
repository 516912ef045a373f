// What a farm of cards counted: what came, what was refused and why, and what was done wrong on purpose.
#pragma once

#include "cardsim/behaviour.h"
#include "cardsim/checks.h"
#include "cardsim/faults.h"
#include "cardsim/mistakes.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace rvk {

struct farm_counts {
    uint64_t received = 0;                                         // frames of any kind
    uint64_t reads = 0, plain_writes = 0, acknowledged_writes = 0; // good requests, those that a fault lost included
    uint64_t bus_reads = 0, bus_writes = 0;                        // good packets of the older block protocol, likewise
    uint64_t bytes_written = 0;                                    // into the cards' memories
    uint64_t replies = 0;                           // frames handed out, duplicates, foreign frames and runts included
    std::array<uint64_t, verdict_count> verdicts{}; // frames by what the check said; use the functions below
    std::array<uint64_t, mistake_count> mistakes{}; // good frames by what was wrong for their register
    std::array<uint64_t, fault_count> injected{};
    std::array<uint64_t, misbehaviour_count> misbehaved{};

    [[nodiscard]] uint64_t of(verdict v) const { return verdicts[static_cast<size_t>(v)]; }
    [[nodiscard]] uint64_t of(mistake m) const { return mistakes[static_cast<size_t>(m)]; }
    [[nodiscard]] uint64_t of(fault f) const { return injected[static_cast<size_t>(f)]; }
    [[nodiscard]] uint64_t of(misbehaviour m) const { return misbehaved[static_cast<size_t>(m)]; }
    [[nodiscard]] uint64_t refused() const;       // the controller's frames that it should not have sent
    [[nodiscard]] std::string refusals() const;   // "wrong_checksum 2, picture_data_missing 1", or "none"
    [[nodiscard]] std::string injections() const; // "wrong-ack 2, refused-piece 1", or "none"
};

} // namespace rvk
