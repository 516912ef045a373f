// What simulated cards do wrong on demand: the injected faults, the record that asks for them, and what decides when
// one happens. Which chances of a fault are taken depends on the seed, the fault and the chance's number alone: the
// same seed brings the same faults again, whatever else is asked for and however time passes.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <utility>

namespace rvk {

struct request_fields;

// Decided in this order, each on its own, so that one answer may suffer several; of the four that change what a read is
// answered with, of the three that change len, and of the four that change what a bus-block answer holds, the first
// that happens excludes the rest. An answer is the reply to a read or to an acknowledged write; a plain write has none.
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
    // Not by chance, but by what the record says of a register.
    refused_register,
    refused_piece,
    silent_piece,
    silent_readiness,
    oversized_answer,
};
inline constexpr auto chance_count = static_cast<size_t>(fault::refused_register); // of those by chance
inline constexpr size_t fault_count = static_cast<size_t>(fault::oversized_answer) + 1;

// What one by chance does, for a person; none of the others. Its option is called as it is, with '-' for '_'.
[[nodiscard]] const char* help_of(fault kind);

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
class fault_injector {
public:
    void load(const card_faults& record); // starts over: chance 0 of every fault is next
    const card_faults& record() const { return loaded; }

    // Takes one chance of this fault. Result: it happens.
    [[nodiscard]] bool happens(fault kind);

    // A number below `bound` (not 0) that belongs to the chance of `kind` taken last.
    [[nodiscard]] uint32_t below(fault kind, uint32_t bound) const;

    // What becomes of a write in place of what it means.
    // next_piece  number of the firmware piece that the card expects, 0 when it expects none
    [[nodiscard]] std::optional<fault> on_write(const request_fields& request, uint32_t next_piece);

    // Makes an answer what the record says of its register: `len` of the bytes in `data`. Result: what was done wrong.
    std::optional<fault> on_read(const request_fields& request, std::span<uint8_t> data, size_t& len);

private:
    card_faults loaded;
    std::array<uint64_t, chance_count> chances{};
};

// Names of an enumeration's first `count` values, as the compiler tells them.
template <auto value>
constexpr std::string_view enumerator()
{
    const std::string_view text = __PRETTY_FUNCTION__; // "… value = rvk::fault::loss; …" or "… = rvk::fault::loss]"
    const size_t end = text.find_first_of(";]", text.find("value = "));
    const size_t begin = text.rfind(':', end) + 1;
    return text.substr(begin, end - begin);
}
template <typename Enum, size_t count>
inline constexpr auto enumerators = []<size_t... i>(std::index_sequence<i...>)
{
    return std::array{enumerator<static_cast<Enum>(i)>()...};
}
(std::make_index_sequence<count>());
static_assert(enumerators<fault, fault_count>.back() == "oversized_answer");

} // namespace rvk
