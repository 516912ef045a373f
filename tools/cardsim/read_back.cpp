#include "cardsim/read_back.h"

#include "base/bytes.h"

namespace rvk {
namespace {

constexpr size_t command_bytes = 7;
constexpr uint32_t units_max = step_room / read_unit;

} // namespace

mistake read_back_port::command(std::span<const uint8_t> bytes)
{
    if (bytes.size() != command_bytes) { return mistake::read_command_length; }
    const uint32_t wanted = load_le16(&bytes[4]);
    if (wanted == 0 || wanted > units_max || bytes[6] != 0) { return mistake::read_command_value; }
    from = uint64_t{load_le32(&bytes[0])} * read_word;
    units = wanted;
    now = phase::commanded;
    return mistake::none;
}

mistake read_back_port::start(std::span<const uint8_t> bytes)
{
    if (bytes.size() != 1 || bytes[0] != 1) { return mistake::read_start_value; }
    if (now != phase::commanded) { return mistake::read_start_order; }
    now = phase::started;
    return mistake::none;
}

mistake read_back_port::status()
{
    if (now != phase::started && now != phase::looked_at) { return mistake::read_status_order; }
    now = phase::looked_at;
    return mistake::none;
}

mistake read_back_port::window(const picture_memory& memory, std::span<uint8_t> out)
{
    if (now != phase::started && now != phase::looked_at) { return mistake::read_window_order; }
    if ((out.size() + read_unit - 1) / read_unit != units) { return mistake::read_window_size; }
    memory.read(from, out);
    const bool skipped = now == phase::started;
    now = phase::idle;
    return skipped ? mistake::read_status_skipped : mistake::none;
}

} // namespace rvk
