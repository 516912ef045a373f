#include "cardsim/behaviour.h"
#include "eth_raw/registers.h"

#include <array>

namespace rvk {
namespace {

constexpr std::array<const char*, misbehaviour_count> names{"refused-register", "refused-piece", "silent-piece",
                                                            "silent-readiness", "oversized-answer"};

// Result: one of the times was left, and is used up.
bool use(uint64_t& times)
{
    if (times == 0) { return false; }
    if (times != every_time) { --times; }
    return true;
}

} // namespace

const char* name_of(misbehaviour m) { return names[static_cast<size_t>(m)]; }

std::optional<misbehaviour> register_script::on_write(uint32_t addr, uint32_t next_piece)
{
    const uint32_t chosen = loaded.refuse_register;
    if (chosen > 0 && chosen <= firmware_registers.size() && addr == firmware_registers[chosen - 1].addr &&
        use(loaded.refuse_register_times)) {
        return misbehaviour::refused_register;
    }
    if (addr != firmware_data || next_piece == 0) { return std::nullopt; }
    if (next_piece == loaded.silent_piece) { return misbehaviour::silent_piece; }
    if (next_piece == loaded.refuse_piece && use(loaded.refuse_piece_times)) { return misbehaviour::refused_piece; }
    return std::nullopt;
}

answer_rule register_script::on_read(uint16_t model, uint8_t slot, uint32_t addr)
{
    if (addr == read_status_register) { return {{}, loaded.status_bytes}; }
    if (model != 0) { return {}; }
    if (addr == generation_register && slot == generation_slot) { return {loaded.generation, loaded.generation_bytes}; }
    if (addr == readiness_register && slot == playback_slot) {
        return {loaded.readiness, loaded.readiness_bytes, loaded.readiness_silent};
    }
    if (addr == lvds_register && slot == lvds_slot && loaded.lvds_wrong_reads) {
        return {.value{}, .block = use(*loaded.lvds_wrong_reads) ? lvds_wrong : lvds_good};
    }
    return {};
}

} // namespace rvk
