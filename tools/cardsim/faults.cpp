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

const char* help_of(fault kind)
{
    switch (kind) {
    case fault::loss: return "a request is never seen: nothing written, nothing answered";
    case fault::wrong_ack: return "an acknowledged write is answered with the wrong status and not carried out";
    case fault::wrong_read: return "a read is answered with the wrong status and no data";
    case fault::read_says_none: return "a read is answered with status 255 and its data";
    case fault::read_empty: return "a read is answered with status 0 and no data";
    case fault::read_oversized: return "a read is answered with 1401 bytes, more than any asks for";
    case fault::ack_code_short: return "an acknowledged write is answered with code 0x10 in place of 0x11";
    case fault::len_past_end: return "an answer's len is 100 more than the data it carries";
    case fault::len_huge: return "an answer's len is 60000";
    case fault::len_short: return "an answer's len is half of the data it carries";
    case fault::corrupt: return "one bit of an answer is wrong, so its checksum is";
    case fault::trailing: return "an answer has 1 to 16 bytes behind its checksum";
    case fault::foreign: return "a frame that is no reply comes before the answer";
    case fault::runt: return "a frame too short for a header comes before the answer";
    case fault::reply_loss: return "a request is carried out, its answer does not arrive";
    case fault::duplicate: return "an answer arrives twice";
    case fault::delay: return "an answer arrives late";
    case fault::reorder: return "an answer arrives behind the next one, or 5 ms late when none comes";
    case fault::bus_refused: return "a bus-block read is answered with the wrong status in place of data";
    case fault::bus_no_data: return "a bus-block read is answered as good, without data";
    case fault::bus_data_short: return "a bus-block answer has half of the data, and says so";
    case fault::bus_data_lie: return "a bus-block answer has half of the data, and says it is all";
    case fault::bus_length_lie: return "a bus-block answer says that it is 100 bytes longer than it is";
    case fault::bus_wrong_type: return "a bus-block answer is neither data nor a response";
    case fault::bus_wrong_addr: return "a bus-block answer is about another address";
    case fault::bus_wrong_dest: return "a bus-block answer is not sent to the controller";
    default: return "";
    }
}

void fault_injector::load(const card_faults& record)
{
    loaded = record;
    chances.fill(0);
}

bool fault_injector::happens(fault kind)
{
    const uint64_t chance = chances[static_cast<size_t>(kind)]++;
    occurrence& how_often = loaded[kind];
    if (how_often.next > 0) { return how_often.next-- > 0; }
    if (!(how_often.part > 0)) { return false; }
    return static_cast<double>(drawn(loaded.seed, kind, chance, for_whether) >> 11) * 0x1p-53 < how_often.part;
}

uint32_t fault_injector::below(fault kind, uint32_t bound) const
{
    const uint64_t chance = chances[static_cast<size_t>(kind)] - 1;
    return static_cast<uint32_t>(drawn(loaded.seed, kind, chance, for_how) % bound);
}

std::optional<fault> fault_injector::on_write(const request_fields& request, uint32_t next_piece)
{
    const uint32_t chosen = loaded.refuse_register;
    if (chosen > 0 && request.addr == firmware_registers[chosen - 1].addr && use(loaded.refuse_register_times)) {
        return fault::refused_register;
    }
    if (request.addr != firmware_data || next_piece == 0) { return std::nullopt; }
    if (next_piece == loaded.silent_piece) { return fault::silent_piece; }
    if (next_piece == loaded.refuse_piece && use(loaded.refuse_piece_times)) { return fault::refused_piece; }
    return std::nullopt;
}

std::optional<fault> fault_injector::on_read(const request_fields& request, std::span<uint8_t> data, size_t& len)
{
    const auto is = [&request](const card_register& r) {
        return request.addr == r.addr && request.model == 0 && request.slot == r.slot;
    };
    uint16_t bytes = 0;
    if (request.addr == read_status_register) {
        bytes = loaded.status_bytes;
    } else if (is(generation_at)) {
        data[0] = loaded.generation.value_or(data[0]);
        bytes = loaded.generation_bytes;
    } else if (is(readiness_at)) {
        if (loaded.readiness_silent) { return fault::silent_readiness; }
        data[0] = loaded.readiness.value_or(data[0]);
        bytes = loaded.readiness_bytes;
    } else if (is(lvds_at) && loaded.lvds_wrong_reads) {
        const auto& block = use(*loaded.lvds_wrong_reads) ? lvds_wrong : lvds_good;
        std::copy_n(block.begin(), std::min(block.size(), len), data.begin());
    }
    if (bytes == 0) { return std::nullopt; }
    len = bytes;
    std::fill(data.begin() + 1, data.begin() + bytes, filler);
    return len > request.len ? std::optional(fault::oversized_answer) : std::nullopt;
}

} // namespace rvk
