// What simulated cards do wrong on demand: the injected faults, the record that asks for them, and what decides when
// one happens. Which chances of a fault are taken depends on the seed, the fault and the chance's number alone: the
// same seed brings the same faults again, whatever else is asked for and however time passes.
#pragma once

#include "command/values.h"

#include <optional>

namespace rvk {

struct request_fields;

// By chance: what one does, for a person. Decided in this order, each on its own, so that one answer may suffer
// several; of the four that change what a read is answered with, of the three that change len, and of those that change
// what a bus-block answer holds, the first that happens excludes the rest. An answer is the reply to a read or to an
// acknowledged write; a plain write has none.
#define RVK_CHANCES(ROW)                                                                          \
    ROW(loss, "a request is never seen: nothing written, nothing answered")                       \
    ROW(wrong_ack, "an acknowledged write is answered with the wrong status and not carried out") \
    ROW(wrong_read, "a read is answered with the wrong status and no data")                       \
    ROW(read_says_none, "a read is answered with status 255 and its data")                        \
    ROW(read_empty, "a read is answered with status 0 and no data")                               \
    ROW(read_oversized, "a read is answered with 1401 bytes, more than any asks for")             \
    ROW(ack_code_short, "an acknowledged write is answered with code 0x10 in place of 0x11")      \
    ROW(len_past_end, "an answer's len is 100 more than the data it carries")                     \
    ROW(len_huge, "an answer's len is 60000")                                                     \
    ROW(len_short, "an answer's len is half of the data it carries")                              \
    ROW(corrupt, "one bit of an answer is wrong, so its checksum is")                             \
    ROW(trailing, "an answer has 1 to 16 bytes behind its checksum")                              \
    ROW(foreign, "a frame that is no reply comes before the answer")                              \
    ROW(runt, "a frame too short for a header comes before the answer")                           \
    ROW(reply_loss, "a request is carried out, its answer does not arrive")                       \
    ROW(duplicate, "an answer arrives twice")                                                     \
    ROW(delay, "an answer arrives late")                                                          \
    ROW(reorder, "an answer arrives behind the next one, or 5 ms late when none comes")           \
    ROW(bus_refused, "a bus-block read is answered with the wrong status in place of data")       \
    ROW(bus_no_data, "a bus-block read is answered as good, without data")                        \
    ROW(bus_data_short, "a bus-block answer has half of the data, and says so")                   \
    ROW(bus_wrong_addr, "a bus-block answer is about another address")

enum class fault : uint8_t {
#define RVK_ROW(name, help) name,
    RVK_CHANCES(RVK_ROW)
#undef RVK_ROW
    // Not by chance, but by what the record says of a register.
    refused_register,
    refused_piece,
    silent_piece,
    silent_readiness,
    oversized_answer,
};
inline constexpr auto chance_count = static_cast<size_t>(fault::refused_register); // of those by chance
inline constexpr size_t fault_count = static_cast<size_t>(fault::oversized_answer) + 1;
static_assert(tool::enumerators<fault, fault_count>.back() == "oversized_answer");

// How often: first the next so many chances, then this part of all, 0 to 1.
struct occurrence {
    double part = 0;
    uint64_t next = 0;
};

struct card_faults {
    uint64_t seed = 1;
    std::array<occurrence, chance_count> how_often{};
    uint8_t wrong_status = 2; // of wrong_ack, wrong_read and bus_refused
    uint32_t delay_ms = 120;  // longer than the 3 ticks of 30 ms after which a request is resent

    std::optional<uint8_t> generation{}; // of the input card; empty: what the register's memory holds, 0 at first
    std::optional<uint8_t> readiness{};  // of the FPGA; 0xFF: never ready. Empty: as above
    bool readiness_silent = false;       // its reads are not answered
    // Bytes that the answers of these registers carry, whatever was asked for; the first is the value, the rest 0xA5.
    // 0: as many as were asked for. At most reply_data_max.
    uint16_t generation_bytes = 0, readiness_bytes = 0, status_bytes = 0;
    // Reads of the LVDS status block that are answered with a wrong one before the good one comes. Empty: its memory.
    std::optional<uint32_t> lvds_wrong_reads{};

    // A firmware transfer, in every card; registers and pieces are counted from 1, 0: none.
    uint32_t refuse_register = 0, refuse_register_times = 1;
    uint32_t refuse_piece = 0, refuse_piece_times = 1;
    uint32_t silent_piece = 0; // neither taken nor answered, however often it comes

    occurrence& operator[](fault kind) { return how_often[static_cast<size_t>(kind)]; }
};

// Follows a record and counts down what it limits. Not thread-safe: its owner locks.
struct fault_injector {
    card_faults record{};
    std::array<uint64_t, chance_count> chances{}; // taken so far

    // Takes one chance of this fault. Result: it happens.
    [[nodiscard]] bool happens(fault kind);

    // A number below `bound` (not 0) that belongs to the chance of `kind` taken last.
    [[nodiscard]] uint32_t below(fault kind, uint32_t bound) const;

    // What becomes of a write in place of what it means.
    // next_piece  number of the firmware piece that the card expects, 0 when it expects none
    [[nodiscard]] std::optional<fault> on_write(const request_fields& request, uint32_t next_piece);

    // Makes an answer what the record says of its register: `len` of the bytes in `data`. Result: what was done wrong.
    std::optional<fault> on_read(const request_fields& request, std::span<uint8_t> data, size_t& len);
};

} // namespace rvk
