// What a simulated link does wrong, as one record, and the dice that decide when.
//
// A test or a command line fills the record, `card_farm::set_faults` takes it. Whether the n-th chance of a fault is
// taken depends on the seed, the fault and n alone: the same seed brings the same faults again, whatever else is
// switched on and however time passes. Nothing here touches a frame.
#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>

namespace rvk {

// How often: a floating-point value is the part of all chances (1.0: every one), a whole number the next so many
// chances.
//   .loss = 0.05     one request in twenty, by the seed
//   .wrong_ack = 2   the next two, then none
struct occurrence {
    double part = 0;   // 0 to 1
    uint64_t next = 0; // chances taken whatever `part` says
    constexpr occurrence() = default;
    constexpr occurrence(double part_of_all) : part(part_of_all) {} // NOLINT: a record's value, meant to convert
    template <std::integral T>
    constexpr occurrence(T count) : next(static_cast<uint64_t>(count))
    {
    } // NOLINT
};

// Decided in this order, each on its own, so that one answer may suffer several; of the four that change what a read is
// answered with, and of the three that change len, the first that happens excludes the rest. An answer is the reply to
// a read or to an acknowledged write; a plain write has none.
struct card_faults {
    uint64_t seed = 1;

    occurrence loss{};           // a good request is never seen: nothing is written, nothing answered
    occurrence wrong_ack{};      // an acknowledged write is answered with wrong_status and not carried out
    occurrence wrong_read{};     // a read is answered with wrong_status and no data
    occurrence read_says_none{}; // a read is answered with status 255 ("no answer") and its data
    occurrence read_empty{};     // a read is answered with status 0 and no data
    occurrence read_oversized{}; // a read is answered with oversized_len bytes, whatever it asked for
    occurrence ack_code_short{}; // an acknowledged write is answered with code 0x10 in place of 0x11
    occurrence len_past_end{};   // the answer's len is 100 more than the data it carries
    occurrence len_huge{};       // the answer's len is 60,000
    occurrence len_short{};      // the answer's len is half of the data it carries; answers with data only
    occurrence corrupt{};        // one bit of the answer is wrong, behind its sync bytes
    occurrence trailing{};       // the answer has 1 to 16 bytes behind its checksum
    occurrence foreign{};    // a frame that is no reply (other addresses, or other sync bytes) comes before the answer
    occurrence runt{};       // a frame with right addresses, too short for a header, comes before the answer
    occurrence reply_loss{}; // the request is carried out, its answer does not arrive
    occurrence duplicate{};  // the answer arrives twice
    occurrence delay{};      // the answer arrives delay_ms late
    occurrence reorder{};    // the answer arrives behind the link's next one, or 5 ms late when none comes

    // Answers to reads of the older block protocol; of the four that change what one holds, the first that happens
    // excludes the rest. Those above that damage an answer's bytes or its arrival strike these answers too.
    occurrence bus_refused{};    // a response with wrong_status in place of the data
    occurrence bus_no_data{};    // a response that says it is good, in place of the data
    occurrence bus_data_short{}; // half of the data, and says so
    occurrence bus_data_lie{};   // half of the data, and says that it is all
    occurrence bus_length_lie{}; // the packet says that it is 100 bytes longer than it is
    occurrence bus_wrong_type{}; // neither data nor a response
    occurrence bus_wrong_addr{}; // of another address
    occurrence bus_wrong_dest{}; // sent to an address that is not the controller's

    uint8_t wrong_status = 2;
    uint16_t oversized_len = 1401; // at most reply_data_max
    uint32_t delay_ms = 120;       // longer than the 3 ticks of 30 ms after which a request is resent
};

enum class fault : uint8_t {
    loss,
    wrong_ack,
    wrong_read,
    read_says_none,
    read_empty,
    read_oversized,
    ack_code_short,
    len_past_end,
    len_huge,
    len_short,
    corrupt,
    trailing,
    foreign,
    runt,
    reply_loss,
    duplicate,
    delay,
    reorder,
    bus_refused,
    bus_no_data,
    bus_data_short,
    bus_data_lie,
    bus_length_lie,
    bus_wrong_type,
    bus_wrong_addr,
    bus_wrong_dest,
};
inline constexpr size_t fault_count = static_cast<size_t>(fault::bus_wrong_dest) + 1;

// A row per fault, in the order of the enumeration: the name is that of the option and of the summary.
struct fault_row {
    fault kind;
    const char* name;
    occurrence card_faults::*how_often;
    const char* meaning; // one sentence for a person
};
[[nodiscard]] std::span<const fault_row, fault_count> fault_table();

// Decides chance by chance. Not thread-safe: its owner locks.
class fault_dice {
public:
    void load(const card_faults& record); // starts over: chance 0 of every fault is next
    const card_faults& record() const { return loaded; }

    // Takes one chance of this fault. Result: it happens.
    [[nodiscard]] bool happens(fault kind);

    // A number below `bound` (not 0) that belongs to the chance of `kind` taken last.
    [[nodiscard]] uint32_t below(fault kind, uint32_t bound) const;

private:
    card_faults loaded;
    std::array<uint64_t, fault_count> chances{};
};

} // namespace rvk
