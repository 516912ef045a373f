#include "cardsim/faults.h"

namespace rvk {
namespace {

constexpr fault_row table[fault_count] = {
    {fault::loss, "loss", &card_faults::loss, "a request is never seen: nothing written, nothing answered"},
    {fault::wrong_ack, "wrong-ack", &card_faults::wrong_ack,
     "an acknowledged write is answered with the wrong status and not carried out"},
    {fault::wrong_read, "wrong-read", &card_faults::wrong_read, "a read is answered with the wrong status and no data"},
    {fault::read_says_none, "read-says-none", &card_faults::read_says_none,
     "a read is answered with status 255 and its data"},
    {fault::read_empty, "read-empty", &card_faults::read_empty, "a read is answered with status 0 and no data"},
    {fault::read_oversized, "read-oversized", &card_faults::read_oversized,
     "a read is answered with more than 1400 bytes"},
    {fault::ack_code_short, "ack-code-short", &card_faults::ack_code_short,
     "an acknowledged write is answered with code 0x10 in place of 0x11"},
    {fault::len_past_end, "len-past-end", &card_faults::len_past_end,
     "an answer's len is 100 more than the data it carries"},
    {fault::len_huge, "len-huge", &card_faults::len_huge, "an answer's len is 60000"},
    {fault::len_short, "len-short", &card_faults::len_short, "an answer's len is half of the data it carries"},
    {fault::corrupt, "corrupt", &card_faults::corrupt, "one bit of an answer is wrong, so its checksum is"},
    {fault::trailing, "trailing", &card_faults::trailing, "an answer has 1 to 16 bytes behind its checksum"},
    {fault::foreign, "foreign", &card_faults::foreign, "a frame that is no reply comes before the answer"},
    {fault::runt, "runt", &card_faults::runt, "a frame too short for a header comes before the answer"},
    {fault::reply_loss, "reply-loss", &card_faults::reply_loss, "a request is carried out, its answer does not arrive"},
    {fault::duplicate, "duplicate", &card_faults::duplicate, "an answer arrives twice"},
    {fault::delay, "delay", &card_faults::delay, "an answer arrives late"},
    {fault::reorder, "reorder", &card_faults::reorder,
     "an answer arrives behind the next one, or 5 ms late when none comes"},
    {fault::bus_refused, "bus-refused", &card_faults::bus_refused,
     "a bus-block read is answered with the wrong status in place of data"},
    {fault::bus_no_data, "bus-no-data", &card_faults::bus_no_data,
     "a bus-block read is answered as good, without data"},
    {fault::bus_data_short, "bus-data-short", &card_faults::bus_data_short,
     "a bus-block answer has half of the data, and says so"},
    {fault::bus_data_lie, "bus-data-lie", &card_faults::bus_data_lie,
     "a bus-block answer has half of the data, and says it is all"},
    {fault::bus_length_lie, "bus-length-lie", &card_faults::bus_length_lie,
     "a bus-block answer says that it is 100 bytes longer than it is"},
    {fault::bus_wrong_type, "bus-wrong-type", &card_faults::bus_wrong_type,
     "a bus-block answer is neither data nor a response"},
    {fault::bus_wrong_addr, "bus-wrong-addr", &card_faults::bus_wrong_addr,
     "a bus-block answer is about another address"},
    {fault::bus_wrong_dest, "bus-wrong-dest", &card_faults::bus_wrong_dest,
     "a bus-block answer is not sent to the controller"},
};

constexpr bool in_order()
{
    for (size_t i = 0; i < fault_count; ++i) {
        if (static_cast<size_t>(table[i].kind) != i) { return false; }
    }
    return true;
}
static_assert(in_order(), "the table is indexed by the enumeration");

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

constexpr uint64_t for_whether = 1, for_how = 2;

} // namespace

std::span<const fault_row, fault_count> fault_table() { return table; }

void fault_dice::load(const card_faults& record)
{
    loaded = record;
    chances.fill(0);
}

bool fault_dice::happens(fault kind)
{
    const auto index = static_cast<size_t>(kind);
    const uint64_t chance = chances[index]++;
    occurrence& how_often = loaded.*table[index].how_often;
    if (how_often.next > 0) {
        --how_often.next;
        return true;
    }
    if (!(how_often.part > 0)) { return false; }
    return static_cast<double>(drawn(loaded.seed, kind, chance, for_whether) >> 11) * 0x1p-53 < how_often.part;
}

uint32_t fault_dice::below(fault kind, uint32_t bound) const
{
    const uint64_t chance = chances[static_cast<size_t>(kind)] - 1;
    return static_cast<uint32_t>(drawn(loaded.seed, kind, chance, for_how) % bound);
}

} // namespace rvk
