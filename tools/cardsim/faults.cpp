#include "cardsim/faults.h"

#include "cardsim/card.h"

#include <algorithm>

namespace rvk {
namespace {

constexpr uint64_t for_whether = 1, for_how = 2;

// Spreads neighbouring numbers over all 64 bits.
constexpr uint64_t mixed(uint64_t x)
{
    x += 0x9E37'79B9'7F4A'7C15;
    x = (x ^ x >> 30) * 0xBF58'476D'1CE4'E5B9;
    x = (x ^ x >> 27) * 0x94D0'49BB'1331'11EB;
    return x ^ x >> 31;
}

constexpr uint64_t drawn(uint64_t seed, fault kind, uint64_t chance, uint64_t purpose)
{
    return mixed(mixed(seed ^ static_cast<uint64_t>(kind) << 56 ^ purpose << 48) + chance);
}

// Result: one was left, and is used up.
bool use(uint32_t& times) { return times > 0 && times-- > 0; }

} // namespace

bool fault_injector::happens(fault kind)
{
    const uint64_t chance = chances[static_cast<size_t>(kind)]++;
    occurrence& how_often = record[kind];
    if (how_often.next > 0) { return how_often.next-- > 0; }
    if (!(how_often.part > 0)) { return false; }
    return static_cast<double>(drawn(record.seed, kind, chance, for_whether) >> 11) * 0x1p-53 < how_often.part;
}

uint32_t fault_injector::below(fault kind, uint32_t bound) const
{
    const uint64_t chance = chances[static_cast<size_t>(kind)] - 1;
    return static_cast<uint32_t>(drawn(record.seed, kind, chance, for_how) % bound);
}

std::optional<fault> fault_injector::on_write(const request_fields& request, uint32_t next_piece)
{
    const uint32_t chosen = record.refuse_register;
    if (chosen > 0 && request.addr == firmware_registers[chosen - 1].addr && use(record.refuse_register_times)) {
        return fault::refused_register;
    }
    if (request.addr != firmware_data || next_piece == 0) { return std::nullopt; }
    if (next_piece == record.silent_piece) { return fault::silent_piece; }
    if (next_piece == record.refuse_piece && use(record.refuse_piece_times)) { return fault::refused_piece; }
    return std::nullopt;
}

std::optional<fault> fault_injector::on_read(const request_fields& request, std::span<uint8_t> data, size_t& len)
{
    const auto is = [&request](const card_register& r) {
        return request.addr == r.addr && request.model == 0 && request.slot == r.slot;
    };
    uint16_t bytes = 0;
    if (request.addr == read_status_register) {
        bytes = record.status_bytes;
    } else if (is(generation_at)) {
        data[0] = record.generation.value_or(data[0]);
        bytes = record.generation_bytes;
    } else if (is(readiness_at)) {
        if (record.readiness_silent) { return fault::silent_readiness; }
        data[0] = record.readiness.value_or(data[0]);
        bytes = record.readiness_bytes;
    } else if (is(lvds_at) && record.lvds_wrong_reads) {
        const auto& block = use(*record.lvds_wrong_reads) ? lvds_wrong : lvds_good;
        std::copy_n(block.begin(), std::min(block.size(), len), data.begin());
    }
    if (bytes == 0) { return std::nullopt; }
    len = bytes;
    std::fill(data.begin() + 1, data.begin() + bytes, filler);
    return len > request.len ? std::optional(fault::oversized_answer) : std::nullopt;
}

} // namespace rvk
