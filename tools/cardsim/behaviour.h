// How the registers that mean something behave, as one record: what they answer, and what goes wrong with a firmware
// transfer at a certain place. Faults that strike at random are in faults.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>

namespace rvk {

inline constexpr uint64_t every_time = std::numeric_limits<uint64_t>::max();

struct card_behaviour {
    std::optional<uint8_t> generation{}; // of the input card; empty: what the register's memory holds, 0 at first
    std::optional<uint8_t> readiness{};  // of the FPGA; 0xFF: never ready. Empty: as above
    bool readiness_silent = false;       // its reads are not answered

    // Bytes that the answers of these registers carry, whatever was asked for; the first is the value, the rest 0xA5.
    // 0: as many as were asked for. At most reply_data_max.
    uint16_t generation_bytes = 0, readiness_bytes = 0, status_bytes = 0;

    // A firmware transfer, in every card; registers and pieces are counted from 1, 0: none.
    uint32_t refuse_register = 0;
    uint64_t refuse_register_times = 1;
    uint32_t refuse_piece = 0;
    uint64_t refuse_piece_times = 1;
    uint32_t silent_piece = 0;  // this piece is neither taken nor answered, however often it comes
    uint8_t refused_status = 2; // of both refusals

    // Reads of the LVDS status block that are answered with a wrong one before the good one comes. Empty: what the
    // register's memory holds.
    std::optional<uint64_t> lvds_wrong_reads{};

    bool bus_responds = false; // writes of the older block protocol are answered with a response
};

// What was done because the record says so; an odd value of a register is not counted.
enum class misbehaviour : uint8_t { refused_register, refused_piece, silent_piece, silent_readiness, oversized_answer };
inline constexpr size_t misbehaviour_count = static_cast<size_t>(misbehaviour::oversized_answer) + 1;

[[nodiscard]] const char* name_of(misbehaviour m); // with '-', as in the summary

// What a register's answer is to be, where the record says so.
struct answer_rule {
    std::optional<uint8_t> value;
    uint16_t bytes = 0; // 0: as many as were asked for
    bool silent = false;
    std::span<const uint8_t> block{}; // the answer's first bytes
};

// Follows a record and counts down what it limits. Not thread-safe: its owner locks.
class register_script {
public:
    void load(const card_behaviour& record) { loaded = record; }
    const card_behaviour& record() const { return loaded; }

    // What becomes of a write to this address in place of what it means.
    // next_piece  number of the firmware piece that the card expects, 0 when it expects none
    [[nodiscard]] std::optional<misbehaviour> on_write(uint32_t addr, uint32_t next_piece);
    [[nodiscard]] answer_rule on_read(uint16_t model, uint8_t slot, uint32_t addr);

private:
    card_behaviour loaded;
};

} // namespace rvk
